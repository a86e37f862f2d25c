#include "campaign/campaign.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "campaign/child_process.h"
#include "campaign/damage_row.h"
#include "campaign/interrupt.h"
#include "campaign/ktap_writer.h"
#include "campaign/markdown_table.h"
#include "campaign/options.h"
#include "campaign/preflight.h"
#include "campaign/volume_row.h"
#include "platform/errno_exception.h"

namespace {

constexpr int kCouldNotRun = 2;

// The campaign's own directory for mount points, removed when it goes.
class Workspace {
 public:
  Workspace() {
    const char* temporary = getenv("TMPDIR");
    std::string pattern = std::string(temporary && *temporary ? temporary : "/tmp") + "/qvexfat-campaign.XXXXXX";
    if (!mkdtemp(pattern.data())) throw ErrnoException(errno, pattern);
    m_directory = pattern;
    if (mkdir(MountPoint().c_str(), 0755) != 0) throw ErrnoException(errno, MountPoint());
  }
  ~Workspace() {
    rmdir(MountPoint().c_str());
    rmdir(m_directory.c_str());
  }
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  std::string MountPoint() const { return m_directory + "/mnt"; }

 private:
  std::string m_directory;
};

std::vector<std::string> Header(const CampaignOptions& options, const Stack& stack, const ScratchStore& store) {
  std::vector<std::string> header{"kernel: " + stack.kernel, "checker: " + stack.checker, "tool: " + stack.tool,
                                  std::string("driver: ") + (options.driver == Driver::kFuse ? "fuse" : "kernel")};
  if (!stack.fuse.empty()) header.push_back("fuse: " + stack.fuse);
  header.push_back("campaign: qvexfat-campaign " QVEXFAT_VERSION);
  header.push_back(std::string(store.IsImage() ? "image: " : "device: ") + store.Path() + ", " +
                   FormatSize(store.Size()));
  return header;
}

RowResult RunRow(Context& context, const Row& row) {
  try {
    return row.damage ? RunDamageRow(context, row) : RunVolumeRow(context, row);
  } catch (const Interrupted&) {
    throw;
  } catch (const std::exception& e) {  // the campaign's own trouble: a loop device it could not set up
    RowResult result;
    result.name = row.name;
    result.damage = row.damage;
    result.error = e.what();
    return result;
  }
}

// Runs the rows; 0 when every row is ok, 1 when some row is not.
int Campaign(const CampaignOptions& options, const std::vector<const Row*>& rows, const Stack& stack) {
  std::unique_ptr<FILE, int (*)(FILE*)> markdown(nullptr, fclose);
  if (!options.markdown.empty()) {
    markdown.reset(fopen(options.markdown.c_str(), "we"));
    if (!markdown) throw ErrnoException(errno, options.markdown);
  }
  std::unique_ptr<ScratchStore> store = options.image.empty()
                                            ? ScratchStore::OpenDevice(options.device)
                                            : ScratchStore::CreateImage(options.image, options.size);
  if (options.keep) store->Keep();
  const Workspace workspace;
  KernelLog kernel_log;
  Progress progress(rows.size());
  Context context{options.driver, options.tool, options.checker, workspace.MountPoint(), *store, kernel_log,
                  progress};
  KtapWriter ktap(stdout, Header(options, stack, *store), rows.size());

  std::vector<RowResult> results;
  for (const Row* row : rows) {
    ThrowIfInterrupted();
    progress.BeginRow(row->name);
    results.push_back(RunRow(context, *row));
    ktap.Row(results.back());
  }
  if (markdown) fputs(MarkdownTables(results).c_str(), markdown.get());
  for (const RowResult& result : results)
    if (!result.Ok()) return 1;
  return 0;
}

}  // namespace

int RunCampaign(int argc, char* argv[]) {
  std::string error;
  CampaignOptions options = ParseOptions(argc, argv, error);
  if (options.help) {
    fputs(Usage().c_str(), stdout);
    return 0;
  }
  const std::vector<const Row*> rows = SelectRows(options.only, error);
  if (!error.empty()) {
    const std::string usage = Usage();
    fprintf(stderr, "qvexfat-campaign: %s\n%s(--help tells more)\n", error.c_str(),
            usage.substr(0, usage.find("\n\n") + 1).c_str());
    return kCouldNotRun;
  }
  Stack stack;
  const std::string refusal = Preflight(options, rows, stack);
  if (!refusal.empty()) {
    fprintf(stderr, "qvexfat-campaign: %s\n", refusal.c_str());
    return kCouldNotRun;
  }
  CatchInterrupts();
  BecomeSubreaper();
  try {
    return Campaign(options, rows, stack);
  } catch (const Interrupted& e) {
    // By now every mount is undone and every loop device let go.
    printf("# %s: stopped, with what it mounted and attached undone\n", e.what());
    fprintf(stderr, "qvexfat-campaign: %s\n", e.what());
    return 128 + e.SignalNumber();
  } catch (const std::exception& e) {
    fprintf(stderr, "qvexfat-campaign: %s\n", e.what());
    return kCouldNotRun;
  }
}
