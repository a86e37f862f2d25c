#include "campaign/campaign.h"

#include <stdlib.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>

#include "campaign/machine/child.h"
#include "campaign/machine/interrupt.h"
#include "campaign/options.h"
#include "campaign/preflight.h"
#include "campaign/report/markdown.h"
#include "campaign/report/report_file.h"
#include "campaign/report/reporter.h"
#include "campaign/trial/damage_row.h"
#include "campaign/trial/volume_row.h"
#include "platform/errno_exception.h"

namespace {

// kselftest's exit statuses: 4 for a run that cannot be made here.
constexpr int kRefused = 2;
constexpr int kSkipped = 4;
// How long the campaign waits at its end for a process it adopted.
constexpr std::chrono::seconds kStrayLimit{30};

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

// The seed of the run's file contents. On a scratch device it is drawn
// anew each run, so that a card that drops writes cannot show an earlier
// run's bytes as the right ones; an image is made empty for each row, and
// a fixed seed keeps what the checker prints of the bytes the same from
// run to run.
// "2026-11-25 10:31 UTC"
std::string Now() {
  const time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &utc);
  return text;
}

// Descriptors 0, 1 and 2 on /dev/null where they are closed, so that
// nothing the campaign opens (the image) takes their place and receives
// the report.
void OpenStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd)
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) open("/dev/null", O_RDWR);
}

uint32_t RunSeed(const ScratchStore& store) {
  uint32_t seed = 0;
  if (!store.IsImage() && getrandom(&seed, sizeof seed, 0) != sizeof seed)
    seed = static_cast<uint32_t>(time(nullptr) ^ getpid());
  return seed;
}

// A row's own seed: no two rows write the same bytes, whichever run.
uint32_t RowSeed(uint32_t run_seed, const Row& row) {
  uint32_t hash = 2166136261u;  // FNV-1a
  for (const char c : row.name) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
  return run_seed ^ (hash & ~0xffu);  // the tree's files take the seeds above it
}

// Waits for what the campaign adopted and is still there (a FUSE daemon
// that has not let go of its loop device); false when one had to be killed.
bool AwaitStrays() {
  bool all_ended = true;
  for (pid_t pid : AdoptedChildren()) all_ended = !AwaitChild(pid, kStrayLimit).TimedOut() && all_ended;
  return all_ended;
}

// Runs the rows; 0 when every row is ok, 1 when some row is not, 128 + N
// after signal N.
int Campaign(const CampaignOptions& options, const std::vector<const Row*>& rows, const Stack& stack) {
  std::optional<ReportFile> markdown;
  if (!options.markdown.empty()) markdown = ReportFile::Create(options.markdown);
  std::unique_ptr<ScratchStore> store = options.image.empty()
                                            ? ScratchStore::OpenDevice(options.device)
                                            : ScratchStore::CreateImage(options.image, options.size);
  if (options.keep) store->Keep();
  const Workspace workspace;
  KernelLog kernel_log;
  Progress progress(rows.size());
  const std::vector<std::string> header = Header(options, stack, *store);
  std::vector<std::string> markdown_stack = header;
  markdown_stack.push_back("date: " + Now());
  if (markdown) markdown->Replace(MarkdownTables(markdown_stack, {}));
  ReportFile out(STDOUT_FILENO, "standard output");
  KtapWriter ktap(out, header, rows.size());
  Reporter reporter(ktap, progress);
  Context context{options.driver, options.tool,      options.checker, options.limits, workspace.MountPoint(),
                  *store,         kernel_log,        RunSeed(*store)};

  int stopped_by = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (stopped_by == 0) stopped_by = PendingInterrupt();
    if (stopped_by != 0) {
      reporter.NotRun(*rows[i], Interrupted(stopped_by).what());
      continue;
    }
    reporter.BeginRow(*rows[i]);
    try {
      if (rows[i]->damage) RunDamageRow(context, *rows[i], RowSeed(context.seed, *rows[i]), reporter);
      else RunVolumeRow(context, *rows[i], reporter);
      reporter.EndRow();
    } catch (const Interrupted& e) {  // by now what the row mounted and attached is undone
      stopped_by = e.SignalNumber();
      reporter.AbandonRow(e.what());
    } catch (const ReportError&) {
      throw;
    } catch (const std::exception& e) {  // the campaign's own trouble: a loop device it could not set up
      reporter.AbandonRow(std::string("the campaign could not go on: ") + e.what());
    }
    // The table as it stands, so that a run that stops keeps it.
    if (markdown) markdown->Replace(MarkdownTables(markdown_stack, reporter.Records()));
  }
  if (markdown) markdown->Close();
  if (!AwaitStrays()) ktap.Note("a process the campaign started did not end, and was killed");
  if (stopped_by != 0) {
    const std::string why = Interrupted(stopped_by).what();
    ktap.Note(why + ": stopped, with what it mounted and attached undone");
    fprintf(stderr, "qvexfat-campaign: %s\n", why.c_str());
    return 128 + stopped_by;
  }
  return reporter.AllOk() ? 0 : 1;
}

}  // namespace

int RunCampaign(int argc, char* argv[]) {
  OpenStandardDescriptors();
  std::string error;
  CampaignOptions options = ParseOptions(argc, argv, error);
  if (options.help || options.version) {
    fputs(options.help ? Usage().c_str() : "qvexfat-campaign " QVEXFAT_VERSION "\n", stdout);
    return 0;
  }
  const std::vector<const Row*> rows = SelectRows(options.only, error);
  if (!error.empty()) {
    const std::string usage = Usage();
    fprintf(stderr, "qvexfat-campaign: %s\n%s(--help tells more)\n", error.c_str(),
            usage.substr(0, usage.find("\n\n") + 1).c_str());
    return kRefused;
  }
  Stack stack;
  const Refusal refusal = Preflight(options, rows, stack);
  if (!refusal.reason.empty()) {
    if (refusal.missing_prerequisite) printf("KTAP version 1\n1..0 # SKIP %s\n", refusal.reason.c_str());
    fprintf(stderr, "qvexfat-campaign: %s\n", refusal.reason.c_str());
    return refusal.missing_prerequisite ? kSkipped : kRefused;
  }
  CatchInterrupts();
  BecomeSubreaper();
  try {
    return Campaign(options, rows, stack);
  } catch (const Interrupted& e) {
    fprintf(stderr, "qvexfat-campaign: %s\n", e.what());
    return 128 + e.SignalNumber();
  } catch (const std::exception& e) {
    fprintf(stderr, "qvexfat-campaign: %s\n", e.what());
    return kRefused;
  }
}
