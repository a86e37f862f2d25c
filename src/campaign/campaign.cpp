#include "campaign/campaign.h"

#include <sys/random.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>

#include <fmt/format.h>

#include "campaign/machine/child.h"
#include "campaign/machine/interrupt.h"
#include "campaign/machine/leftovers.h"
#include "campaign/machine/workspace.h"
#include "campaign/options.h"
#include "campaign/preflight.h"
#include "campaign/report/markdown.h"
#include "campaign/report/report_file.h"
#include "campaign/power/power_cut_row.h"
#include "campaign/power/recording.h"
#include "campaign/power/replay_row.h"
#include "campaign/power/user_log.h"
#include "campaign/report/reporter.h"
#include "campaign/trial/damage_row.h"
#include "campaign/trial/image_row.h"
#include "campaign/trial/volume_row.h"
#include "platform/errno_exception.h"

namespace {

// kselftest's exit statuses: 4 for a run that cannot be made here.
constexpr int kRefused = 2;
constexpr int kSkipped = 4;
// How long the campaign waits at its end for a process it adopted.
constexpr std::chrono::seconds kStrayLimit{30};
// Rows whose programs could not be stopped before the rest are not run.
constexpr size_t kStuckRows = 3;

std::vector<std::string> Header(const CampaignOptions& options, const Stack& stack, const ScratchStore& store,
                                uint32_t seed) {
  std::vector<std::string> header{"kernel: " + stack.kernel, "checker: " + stack.checker, "tool: " + stack.tool,
                                  std::string("driver: ") + (options.driver == Driver::kFuse ? "fuse" : "kernel")};
  if (!stack.fuse.empty()) header.push_back("fuse: " + stack.fuse);
  header.push_back("campaign: qvexfat-campaign " QVEXFAT_VERSION);
  header.push_back(std::string(store.IsImage() ? "image: " : "device: ") + store.Path() + ", " +
                   FormatSize(store.Size()));
  // A seed drawn for the run, or given, is what repeats it (--seed).
  if (options.seed || !store.IsImage()) header.push_back("seed: " + std::to_string(seed));
  return header;
}

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

// The seed of the run's file contents. On a scratch device it is drawn
// anew each run, so that a card that drops writes cannot show an earlier
// run's bytes as the right ones; an image is made empty for each row, and
// a fixed seed keeps what the checker prints of the bytes the same from
// run to run. --seed gives it.
uint32_t RunSeed(const CampaignOptions& options, const ScratchStore& store) {
  if (options.seed) return *options.seed;
  uint32_t seed = 0;
  if (!store.IsImage() && getrandom(&seed, sizeof seed, 0) != sizeof seed)
    seed = static_cast<uint32_t>(time(nullptr) ^ getpid());
  return seed;
}

// A row's own seed: no two rows write the same bytes, whichever run. The
// field rows share theirs, as they share one volume, and so do the
// power-cut rows, which share one log.
uint32_t RowSeed(uint32_t run_seed, const Row& row) {
  uint32_t hash = 2166136261u;  // FNV-1a
  const std::string shared = row.fuzz ? "fields" : !row.power_cut.empty() ? "power-cut" : row.name;
  for (const char c : shared) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
  return run_seed ^ (hash & ~0xffu);  // the tree's files take the seeds above it
}

// Waits for what the campaign adopted and is still there (a FUSE daemon
// that has not let go of its loop device); false when one had to be killed.
bool AwaitStrays() {
  bool all_ended = true;
  for (pid_t pid : AdoptedChildren()) all_ended = !AwaitChild(pid, kStrayLimit).TimedOut() && all_ended;
  return all_ended;
}

// Whether a program of the row could not be stopped past its time limit:
// a task stuck in the driver, which holds on to its device for good.
bool LeftStuck(const RowRecord& record) {
  for (const StepObservation& step : record.steps)
    for (const Run& run : step.runs)
      if (run.end.stuck) return true;
  return false;
}

// Runs the rows in turn until a signal stops the run; the signal's number,
// or 0. After a few rows whose programs could not be stopped, the rest are
// not run: the machine needs a reboot before it can be trusted again.
int RunRows(const std::vector<const Row*>& rows, Context& context, Reporter& reporter, KtapWriter& ktap,
            std::optional<ReportFile>& markdown, const std::vector<std::string>& markdown_stack) {
  int stopped_by = 0;
  size_t stuck_rows = 0;
  for (const Row* row : rows) {
    if (stopped_by == 0) stopped_by = PendingInterrupt();
    if (stopped_by != 0) {
      reporter.NotRun(*row, Interrupted(stopped_by).what());
      continue;
    }
    if (stuck_rows >= kStuckRows) {
      reporter.NotRun(*row, fmt::format("{} rows left programs stuck in the kernel: reboot the machine", stuck_rows));
      continue;
    }
    reporter.BeginRow(*row);
    try {
      if (!row->image.empty()) RunImageRow(context, *row, RowSeed(context.seed, *row), reporter);
      else if (!row->power_cut.empty()) RunPowerCutRow(context, *row, RowSeed(context.seed, *row), reporter);
      else if (row->replayed) RunReplayRow(context, *row, RowSeed(context.seed, *row), reporter);
      else if (row->damage) RunDamageRow(context, *row, RowSeed(context.seed, *row), reporter);
      else RunVolumeRow(context, *row, reporter);
      reporter.EndRow();
      TakeTeardownNotes();  // what a finished row took down was its own business
    } catch (const Interrupted& e) {  // by now what the row mounted and attached is undone
      stopped_by = e.SignalNumber();
      reporter.AbandonRow(e.what());
    } catch (const ReportError&) {
      throw;
    } catch (const std::exception& e) {  // the campaign's own trouble: a loop device it could not set up
      reporter.AbandonRow(std::string("the campaign could not go on: ") + e.what());
      if (const std::string undone = TakeTeardownNotes().Describe(); !undone.empty()) ktap.Note("undone: " + undone);
    }
    if (!reporter.Records().empty() && LeftStuck(reporter.Records().back()) && ++stuck_rows == kStuckRows)
      ktap.Note(fmt::format("{} rows left programs that could not be stopped: the rest are not run, and the "
                            "machine needs a reboot",
                            stuck_rows));
    // The table as it stands, so that a run that stops keeps it.
    if (markdown) markdown->Replace(MarkdownTables(markdown_stack, reporter.Records()));
  }
  return stopped_by;
}

// Runs the rows; 0 when every row is ok, 1 when some row is not, 128 + N
// after signal N. Whatever way it ends, nothing it set up is left: what is
// still mounted below its directory or attached over its store is found
// and undone, and an interrupted run says, by name, what it undid.
int Campaign(const CampaignOptions& options, const std::vector<const Row*>& rows, const Stack& stack) {
  std::unique_ptr<ScratchStore> store = options.image.empty()
                                            ? ScratchStore::OpenDevice(options.device)
                                            : ScratchStore::CreateImage(options.image, options.size);
  if (options.keep) store->Keep();
  Workspace workspace(store->Path(), store->IsImage(), options.keep);
  std::optional<ReportFile> markdown;
  if (!options.markdown.empty()) markdown = ReportFile::Create(options.markdown);
  KernelLog kernel_log;
  Progress progress(rows.size());
  TellLongWaits([&progress](const std::string& what, std::chrono::seconds so_far) { progress.Waiting(what, so_far); });
  const uint32_t seed = RunSeed(options, *store);
  const std::vector<std::string> header = Header(options, stack, *store, seed);
  std::vector<std::string> markdown_stack = header;
  markdown_stack.push_back("date: " + Now());
  if (markdown) markdown->Replace(MarkdownTables(markdown_stack, {}));
  ReportFile out(STDOUT_FILENO, "standard output");
  KtapWriter ktap(out);
  Reporter reporter(ktap, progress, rows);
  GoldenVolume golden;
  Recording recording;
  Context context{options.driver, options.tool,    options.checker,
                  options.limits, workspace.MountPoint(), *store,
                  kernel_log,     seed,            store->IsImage() && options.keep,
                  &golden,        &recording,
                  options.points.value_or(kDurablePoints), options.points.value_or(kTornPoints)};

  int stopped_by = 0;
  const auto started = std::chrono::steady_clock::now();
  try {
    reporter.Begin(header);
    stopped_by = RunRows(rows, context, reporter, ktap, markdown, markdown_stack);
    reporter.End();
  } catch (const Interrupted& e) {  // the report's reader has gone (SIGPIPE)
    stopped_by = e.SignalNumber();
  }
  // Hundreds of field rows: how fast this machine goes through them.
  if (std::any_of(rows.begin(), rows.end(), [](const Row* row) { return row->fuzz; })) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    fprintf(stderr, "qvexfat-campaign: %zu rows in %.0f s, %.0f rows a minute\n", reporter.Records().size(), seconds,
            60 * static_cast<double>(reporter.Records().size()) / std::max(seconds, 1.0));
  }
  if (markdown) markdown->Close();
  Teardown teardown = TakeTeardownNotes();
  if (!AwaitStrays()) teardown.left.push_back("a process the campaign started did not end, and was killed");
  const Teardown swept = Sweep(workspace.Directory(), store->Path(), getpid());
  teardown.Add(swept);
  const std::string image = store->IsImage() && !options.keep ? store->Path() : "";
  store.reset();
  if (!image.empty()) teardown.undone.push_back("removed " + image);
  const std::string directory = workspace.Directory();
  if (const std::string left = workspace.Remove(); left.empty()) teardown.undone.push_back("removed " + directory);
  else teardown.left.push_back(left);

  if (stopped_by == 0) stopped_by = PendingInterrupt();  // a signal during the teardown
  if (stopped_by != 0 || !swept.undone.empty() || !teardown.left.empty()) {
    const std::string said = (stopped_by != 0 ? Interrupted(stopped_by).what() + std::string(": stopped; ")
                                              : std::string("left over after the rows: ")) +
                             teardown.Describe();
    ktap.Note(said);
    fprintf(stderr, "qvexfat-campaign: %s\n", said.c_str());
  }
  if (stopped_by != 0) return 128 + stopped_by;
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
  UserLog user_log;
  std::vector<Row> replay_rows;
  if (error.empty() && !options.replay.empty())
    replay_rows = ReplayRows(options.replay, options.base, options.points.value_or(kDurablePoints), user_log, error);
  // Images and a log are run alone unless rows are named.
  std::vector<const Row*> rows;
  if (error.empty() && options.only.empty() && (!options.images.empty() || !options.replay.empty()))
    for (const Row& row : replay_rows) rows.push_back(&row);
  else if (error.empty())
    rows = SelectRows(options.only, replay_rows, error);
  std::vector<Row> image_rows;
  if (error.empty() && !options.images.empty()) image_rows = ImageRows(options.images, error);
  for (const Row& row : image_rows) rows.push_back(&row);
  if (!error.empty()) {
    const std::string usage = Usage();
    fprintf(stderr, "qvexfat-campaign: %s\n%s(--help tells more)\n", error.c_str(),
            usage.substr(0, usage.find("\n\n") + 1).c_str());
    return kRefused;
  }
  // From here on a signal stops the run where it is, undoing what it set up.
  CatchInterrupts();
  // A campaign killed outright may have left the image this run would make.
  if (geteuid() == 0)
    for (const std::string& cleared : ClearAbandonedWorkspaces())
      fprintf(stderr, "qvexfat-campaign: %s\n", cleared.c_str());
  Stack stack;
  Refusal refusal;
  try {
    refusal = Preflight(options, rows, stack);
  } catch (const Interrupted& e) {
    fprintf(stderr, "qvexfat-campaign: %s before it began\n", e.what());
    return 128 + e.SignalNumber();
  }
  if (!refusal.reason.empty()) {
    if (refusal.missing_prerequisite) printf("KTAP version 1\n1..0 # SKIP %s\n", refusal.reason.c_str());
    fprintf(stderr, "qvexfat-campaign: %s\n", refusal.reason.c_str());
    return refusal.missing_prerequisite ? kSkipped : kRefused;
  }
  if (const int signal_number = PendingInterrupt()) {
    fprintf(stderr, "qvexfat-campaign: %s before it began\n", Interrupted(signal_number).what());
    return 128 + signal_number;
  }
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
