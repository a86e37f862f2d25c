#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "campaign/machine/mounts.h"
#include "campaign/trial/context.h"
#include "campaign/trial/rows.h"

struct CampaignOptions {
  Driver driver = Driver::kKernel;
  std::vector<std::string> only;  // row names, "damage", "volume"; none: every row
  std::string markdown;
  std::string tool;     // empty: qvexfat-test beside the campaign, or on PATH
  std::string checker = "fsck.exfat";
  bool checker_given = false;
  Limits limits;
  bool keep = false;
  std::string image;
  std::string images;  // a directory of images to try, a row each
  std::string replay;  // a write log the user brings, tried at each durable point
  std::string base;    // the volume the log began from
  std::optional<size_t> points;  // the most durable and torn points a log's rows try
  uint64_t size = 0;  // 0: what the largest row needs
  std::string device;
  bool yes = false;
  bool whole_disk = false;
  std::optional<uint32_t> seed;  // of the files' contents and the field rows' draws
  bool help = false;
  bool version = false;
};

// The command line, or in `error` why it is not one.
CampaignOptions ParseOptions(int argc, char* argv[], std::string& error);

std::string Usage();

// The rows that `only` names, in the campaign's order, among the
// campaign's own and `replay_rows`; in `error` a name that is no row's.
std::vector<const Row*> SelectRows(const std::vector<std::string>& only, const std::vector<Row>& replay_rows,
                                   std::string& error);
