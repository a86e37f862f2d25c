#include "campaign/machine/device_mapper.h"

#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "campaign/machine/error_name.h"
#include "campaign/machine/leftovers.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr const char* kControl = "/dev/mapper/control";
// Room for a table, a status line or the list of devices.
constexpr size_t kBufferBytes = 16 * 1024;
// A device still open a moment after its last user let go (a mount's
// final writes): how long a removal keeps trying.
constexpr auto kRemoveLimit = std::chrono::seconds(10);

// One ioctl's argument: the header, then what the call takes or gives.
class DmCall {
 public:
  explicit DmCall(const std::string& name) : m_words(kBufferBytes / sizeof(uint64_t)) {
    dm_ioctl& header = Header();
    header.version[0] = DM_VERSION_MAJOR;  // the oldest 4.x does what is asked here
    header.data_size = kBufferBytes;
    header.data_start = sizeof(dm_ioctl);
    strncpy(header.name, name.c_str(), sizeof header.name - 1);
  }

  dm_ioctl& Header() { return *reinterpret_cast<dm_ioctl*>(m_words.data()); }
  char* Data() { return reinterpret_cast<char*>(m_words.data()) + Header().data_start; }
  size_t DataRoom() const { return kBufferBytes - sizeof(dm_ioctl); }

  // The call on /dev/mapper/control; errno's value when it fails, else 0.
  int Issue(unsigned long request) {
    const UniqueFd control(open(kControl, O_RDWR | O_CLOEXEC));
    if (!control.IsOpen()) return errno;
    return ioctl(control.Get(), request, m_words.data()) == 0 ? 0 : errno;
  }

 private:
  std::vector<uint64_t> m_words;  // aligned as dm_ioctl's 64-bit fields need
};

void Must(int error, const std::string& what) {
  if (error != 0) throw ErrnoException(error, what);
}

}  // namespace

DmDevice::DmDevice(const std::string& name, uint64_t sectors, const std::string& target, const std::string& params)
    : m_name(name), m_path(std::string("/dev/mapper/") + name) {
  DmCall create(name);
  Must(create.Issue(DM_DEV_CREATE), "creating device-mapper device " + name);
  m_made = true;
  try {
    DmCall load(name);
    load.Header().target_count = 1;
    auto* spec = reinterpret_cast<dm_target_spec*>(load.Data());
    spec->sector_start = 0;
    spec->length = sectors;
    strncpy(spec->target_type, target.c_str(), sizeof spec->target_type - 1);
    if (sizeof(dm_target_spec) + params.size() + 1 > load.DataRoom()) throw ErrnoException(E2BIG, "table of " + name);
    memcpy(load.Data() + sizeof(dm_target_spec), params.c_str(), params.size() + 1);
    Must(load.Issue(DM_TABLE_LOAD), "loading the " + target + " table of " + name);
    DmCall resume(name);  // a suspend call without the suspend flag resumes
    Must(resume.Issue(DM_DEV_SUSPEND), "resuming " + name);
    const dev_t device = static_cast<dev_t>(resume.Header().dev);
    unlink(m_path.c_str());  // a node an earlier machine's run left
    if (mknod(m_path.c_str(), S_IFBLK | 0600, device) != 0) throw ErrnoException(errno, "mknod " + m_path);
  } catch (...) {
    RemoveDmDevice(m_name);
    m_made = false;
    throw;
  }
}

DmDevice::~DmDevice() {
  if (!m_made) return;
  const std::string left = Remove();
  if (left.empty()) NoteUndone("removed " + m_path);
  else NoteLeft(left);
}

void DmDevice::Message(const std::string& text) const {
  DmCall call(m_name);
  auto* message = reinterpret_cast<dm_target_msg*>(call.Data());
  message->sector = 0;
  if (sizeof(dm_target_msg) + text.size() + 1 > call.DataRoom()) throw ErrnoException(E2BIG, "message to " + m_name);
  memcpy(message->message, text.c_str(), text.size() + 1);
  Must(call.Issue(DM_TARGET_MSG), "\"" + text + "\" to " + m_name);
}

std::string DmDevice::Status() const {
  DmCall call(m_name);
  Must(call.Issue(DM_TABLE_STATUS), "status of " + m_name);
  if (call.Header().target_count == 0) return "";
  // One target: its spec, then its status line.
  const char* text = call.Data() + sizeof(dm_target_spec);
  return std::string(text, strnlen(text, call.DataRoom() - sizeof(dm_target_spec)));
}

std::string DmDevice::Remove() {
  if (!m_made) return "";
  m_made = false;
  const auto deadline = std::chrono::steady_clock::now() + kRemoveLimit;
  std::string left;
  while (!(left = RemoveDmDevice(m_name)).empty() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  return left;
}

std::string CampaignDmName(pid_t pid) { return "qvexfat-campaign-" + std::to_string(pid); }

std::string RemoveDmDevice(const std::string& name) {
  DmCall call(name);
  const int error = call.Issue(DM_DEV_REMOVE);
  if (error != 0 && error != ENXIO) return "/dev/mapper/" + name + " stays (" + ErrorName(error) + ")";
  unlink(("/dev/mapper/" + name).c_str());
  return "";
}

bool DmDeviceExists(const std::string& name) {
  DmCall call(name);
  return call.Issue(DM_DEV_STATUS) == 0;
}

std::string DmTargetMissing(const std::string& target) {
  // Asking for the target's version loads its module where the kernel can.
  DmCall call(target);
  const int error = call.Issue(DM_GET_TARGET_VERSION);
  if (error == 0) return "";
  if (error == EINVAL) return "the kernel has no " + target + " target (the dm-" + target + " module)";
  return std::string("the kernel has no device-mapper (the dm-mod module): ") + kControl + ": " + ErrorName(error);
}
