#include "campaign/options.h"

#include <getopt.h>

#include <algorithm>

#include "campaign/machine/scratch_store.h"

namespace {

std::vector<std::string> SplitCommas(const std::string& text) {
  std::vector<std::string> names;
  size_t start = 0;
  for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1)
    names.push_back(text.substr(start, comma - start));
  names.push_back(text.substr(start));
  return names;
}

// "600": whole seconds, at least one and under four months; 0 when the
// text is not that.
std::chrono::seconds ParseSeconds(const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 7)
    return std::chrono::seconds(0);
  return std::chrono::seconds(std::stol(text));
}

// "checker=60,mount=30": the time limits given, in seconds; false when the
// text is not that.
bool ParseLimits(const std::string& text, Limits& limits) {
  for (const std::string& item : SplitCommas(text)) {
    const size_t equals = item.find('=');
    const std::string name = item.substr(0, equals);
    const std::chrono::seconds seconds = ParseSeconds(equals == std::string::npos ? "" : item.substr(equals + 1));
    if (seconds.count() == 0) return false;
    if (name == "checker") limits.checker = seconds;
    else if (name == "mount") limits.mount = seconds;
    else if (name == "test") limits.test = seconds;
    else return false;
  }
  return true;
}

}  // namespace

std::string Usage() {
  std::string usage =
      "Usage: qvexfat-campaign [--driver kernel|fuse] [--only NAMES] [--markdown FILE]\n"
      "                        [--tool PATH] [--fsck PATH] [--keep] [--timeout SECONDS]\n"
      "                        [--limits LIMITS] [--seed N] [--images DIR]\n"
      "                        [--replay LOG --base IMAGE] [--points N]\n"
      "                        (--image FILE [--size SIZE] |\n"
      "                         --device DEV --yes [--whole-disk])\n"
      "\n"
      "Damages, checks, mounts, reads, writes and repairs exFAT volumes, one fresh\n"
      "volume a row, and reports in KTAP on standard output. Runs as root.\n"
      "\n"
      "  --image FILE   make FILE for the volumes; removed at the end\n"
      "  --size SIZE    the image's size: digits and K, M, G or T (default: what\n"
      "                 the largest row chosen needs)\n"
      "  --keep         keep the image, and each damage row's volume as it was\n"
      "                 once damaged, as FILE.<row>.img\n"
      "  --device DEV   a scratch block device whose data is destroyed\n"
      "  --yes          confirms --device\n"
      "  --whole-disk   confirms a --device that has partitions or a partition table\n"
      "  --driver       kernel (mount -t exfat, the default) or fuse (exfat-fuse)\n"
      "  --only NAMES   comma-separated rows; \"damage\" and \"volume\" name the groups\n"
      "                 (the default: both), \"fields\" the field rows' quick tier,\n"
      "                 \"fields-all\" every field row, and a field row's prefix\n"
      "                 its rows (stream.DataLength), \"power-cut\" the power-cut\n"
      "                 rows (Linux's dm-log-writes under the volume)\n"
      "  --images DIR   a row for each image file in DIR (raw, gzip or xz), tried on\n"
      "                 a copy: check, mount, every file read twice, write, repair;\n"
      "                 IMAGE.sha256 beside one (as sha256sum prints) names its\n"
      "                 files' contents. Without --only, only the images are run\n"
      "  --replay LOG   a dm-log-writes log (dmsetup, or QEMU's blklogwrites) of a\n"
      "  --base IMAGE   volume that IMAGE (raw, gzip or xz) holds as it was when\n"
      "                 logging began: a row for each flush, FUA and mark point,\n"
      "                 where the volume must be clean, mount and repair. Without\n"
      "                 --only, only the log is run\n"
      "  --points N     the most flush and torn points a log's rows try (default:\n"
      "                 32 flush points, 64 torn points)\n"
      "  --markdown F   the results as Markdown tables in F\n"
      "  --tool, --fsck the programs to try (qvexfat-test, fsck.exfat)\n"
      "  --timeout S    seconds any program may take before its step is TIMEOUT\n"
      "                 (default: 600 for the checker, 300 for a mount, 3600 for\n"
      "                 the tool's volume test)\n"
      "  --limits L     one limit each, over --timeout: checker=S,mount=S,test=S\n"
      "  --seed N       the seed of the files' contents and of the field rows'\n"
      "                 crosslink targets (default: 0 on an image, drawn on a device)\n"
      "  --help, --version\n"
      "\n"
      "Rows:\n";
  for (const bool damage : {true, false}) {
    std::string line = damage ? "  damage:" : "  volume:";
    for (const Row& row : AllRows()) {
      if (row.damage != damage) continue;
      if (line.size() + row.name.size() > 76) {
        usage += line + "\n";
        line = "         ";
      }
      line += " " + row.name;
    }
    usage += line + "\n";
  }
  usage += "  fields: <structure>.<Field>[.<instance>].<verb>, " + std::to_string(FieldRows().size()) +
           " rows, such as\n          stream.ValidDataLength.frag-a.firstbit and boot.VolumeLength.ones\n";
  std::string line = "  power-cut:";
  for (const Row& row : PowerCutRows()) {
    if (line.size() + row.name.size() > 76) {
      usage += line + "\n";
      line = "            ";
    }
    line += " " + row.name;
  }
  usage += line + "\n";
  return usage +
         "\nExit status: 0 every row ok, 1 some row not ok, 2 a usage error or a refused\n"
         "device, 4 skipped (a prerequisite missing: root, a driver, loop devices or a\n"
         "program), 128 + N stopped by signal N.\n";
}

CampaignOptions ParseOptions(int argc, char* argv[], std::string& error) {
  static const option kOptions[] = {
      {"driver", required_argument, nullptr, 'D'}, {"only", required_argument, nullptr, 'o'},
      {"markdown", required_argument, nullptr, 'm'}, {"tool", required_argument, nullptr, 't'},
      {"fsck", required_argument, nullptr, 'f'},     {"keep", no_argument, nullptr, 'k'},
      {"image", required_argument, nullptr, 'i'},   {"size", required_argument, nullptr, 's'},
      {"device", required_argument, nullptr, 'd'},  {"yes", no_argument, nullptr, 'y'},
      {"limits", required_argument, nullptr, 'l'},  {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},       {"whole-disk", no_argument, nullptr, 'w'},
      {"timeout", required_argument, nullptr, 'T'},  {"seed", required_argument, nullptr, 'S'},
      {"images", required_argument, nullptr, 'I'},  {"replay", required_argument, nullptr, 'r'},
      {"base", required_argument, nullptr, 'b'},    {"points", required_argument, nullptr, 'P'},
      {nullptr, 0, nullptr, 0},
  };
  CampaignOptions options;
  opterr = 0;
  std::string seen;  // the options given so far: a second one would silently win
  std::string limits;  // read once --timeout is known, which it refines
  for (int option; (option = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
    const std::string value = optarg ? optarg : "";
    if (option != '?' && seen.find(static_cast<char>(option)) != std::string::npos) {
      for (const struct option* known = kOptions; known->name; ++known)
        if (known->val == option) error = std::string("--") + known->name + " is given twice";
      return options;
    }
    seen += static_cast<char>(option);
    switch (option) {
      case 'D':
        if (value != "kernel" && value != "fuse") error = "--driver takes kernel or fuse, not " + value;
        options.driver = value == "fuse" ? Driver::kFuse : Driver::kKernel;
        break;
      case 'o': options.only = SplitCommas(value); break;
      case 'm': options.markdown = value; break;
      case 't': options.tool = value; break;
      case 'f':
        options.checker = value;
        options.checker_given = true;
        break;
      case 'T': {
        const std::chrono::seconds seconds = ParseSeconds(value);
        if (seconds.count() == 0) error = "--timeout takes whole seconds, at least 1, not " + value;
        options.limits = Limits{seconds, seconds, seconds};
        break;
      }
      case 'l': limits = value; break;
      case 'S':
        if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos || value.size() > 9)
          error = "--seed takes a number of up to 9 digits, not " + value;
        else
          options.seed = static_cast<uint32_t>(std::stoul(value));
        break;
      case 'k': options.keep = true; break;
      case 'i': options.image = value; break;
      case 'I': options.images = value; break;
      case 'r': options.replay = value; break;
      case 'b': options.base = value; break;
      case 'P':
        if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos || value.size() > 4 ||
            std::stoul(value) == 0)
          error = "--points takes a number from 1 to 9999, not " + value;
        else
          options.points = std::stoul(value);
        break;
      case 's':
        options.size = ParseSize(value);
        if (options.size == 0) error = "--size takes digits and one of K, M, G or T, such as 384M, not " + value;
        break;
      case 'd': options.device = value; break;
      case 'y': options.yes = true; break;
      case 'w': options.whole_disk = true; break;
      case 'h': options.help = true; break;
      case 'V': options.version = true; break;
      default:
        error = optopt ? std::string("unknown option or missing argument: -") + static_cast<char>(optopt)
                       : "unknown option or missing argument: " + std::string(argv[optind - 1]);
    }
    if (!error.empty()) return options;
  }
  if (options.help || options.version) return options;
  if (seen.find('l') != std::string::npos && !ParseLimits(limits, options.limits))
    error = "--limits takes checker=S,mount=S,test=S in seconds, not " + limits;
  else if (optind < argc) error = std::string("unexpected argument: ") + argv[optind];
  else if (options.image.empty() == options.device.empty()) error = "give either --image FILE or --device DEV";
  else if (!options.device.empty() && options.size != 0) error = "--size is for --image";
  else if (options.device.empty() && options.whole_disk) error = "--whole-disk is for --device";
  else if (!options.device.empty() && options.keep) error = "--keep is for --image: a device keeps the last row's volume";
  else if (options.replay.empty() != options.base.empty()) error = "--replay LOG and --base IMAGE go together";
  return options;
}

namespace {

// Whether `name` picks `row`: its name, its group, or for a field row a
// prefix of its name that ends at a dot ("stream.DataLength"), unless a row
// has that very name (the damage row "upcase", not the field rows of the
// up-case table's entry).
bool Names(const std::string& name, const Row& row, bool a_row_is_named_so) {
  if (name == row.name) return true;
  if (!row.power_cut.empty()) return name == "power-cut";
  if (row.replayed) return name == "replay";
  if (!row.fuzz) return name == (row.damage ? "damage" : "volume");
  if (name == "fields-all") return true;
  if (name == "fields") return row.fuzz->quick;
  return !a_row_is_named_so && row.name.size() > name.size() && row.name.compare(0, name.size(), name) == 0 &&
         row.name[name.size()] == '.';
}

}  // namespace

std::vector<const Row*> SelectRows(const std::vector<std::string>& only, const std::vector<Row>& replay_rows,
                                   std::string& error) {
  std::vector<const Row*> candidates;
  for (const Row& row : AllRows()) candidates.push_back(&row);
  for (const Row& row : FieldRows()) candidates.push_back(&row);
  for (const Row& row : PowerCutRows()) candidates.push_back(&row);
  for (const Row& row : replay_rows) candidates.push_back(&row);
  std::vector<const Row*> rows;
  for (const Row* row : candidates) {
    bool chosen = only.empty() && !row->fuzz && row->power_cut.empty() && !row->replayed;
    for (const std::string& name : only) {
      const bool exact = std::any_of(candidates.begin(), candidates.end(), [&](const Row* r) { return r->name == name; });
      chosen = chosen || Names(name, *row, exact);
    }
    if (chosen) rows.push_back(row);
  }
  for (const std::string& name : only)
    if (std::none_of(candidates.begin(), candidates.end(), [&](const Row* row) { return Names(name, *row, false); }))
      error = "no row is called \"" + name + "\" (see --help)";
  return rows;
}
