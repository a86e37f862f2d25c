// faultfs: mounts a backing directory through FUSE, behaving like a small
// exFAT volume, or misbehaving in one named way.
//
//   faultfs [--fault=<name>] [--size=<bytes>] [--cluster=<bytes>]
//           [--lose-after=<entries>] <backing-dir> <mount-point> [FUSE options]

#include <fuse.h>
#include <limits.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "fault_config.h"
#include "fault_filesystem.h"

namespace {

using faultfs::FaultFilesystem;

FaultFilesystem& Fs() {
  return *static_cast<FaultFilesystem*>(fuse_get_context()->private_data);
}

// Every operation runs under the filesystem's one lock, so the emulated
// volume's bookkeeping stays consistent even with a multi-threaded loop.
template <typename Call>
int Locked(Call call) {
  FaultFilesystem& fs = Fs();
  std::lock_guard<std::mutex> lock(fs.Mutex());
  return call(fs);
}

void* Init(fuse_conn_info*, fuse_config* config) {
  // Every stat and lookup reaches the filesystem and every read and write
  // goes through it uncached, so a fault shows at once.
  config->entry_timeout = 0;
  config->attr_timeout = 0;
  config->negative_timeout = 0;
  config->direct_io = 1;
  config->hard_remove = 1;
  config->use_ino = 0;
  return fuse_get_context()->private_data;
}

fuse_operations MakeOperations() {
  fuse_operations ops{};
  ops.init = Init;
  ops.getattr = [](const char* p, struct stat* st, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.GetAttr(p, st, fi); });
  };
  ops.readdir = [](const char* p, void* buf, fuse_fill_dir_t filler, off_t, fuse_file_info*,
                   fuse_readdir_flags) {
    return Locked([&](FaultFilesystem& fs) { return fs.ReadDir(p, buf, filler); });
  };
  ops.mkdir = [](const char* p, mode_t mode) {
    return Locked([&](FaultFilesystem& fs) { return fs.MkDir(p, mode); });
  };
  ops.rmdir = [](const char* p) { return Locked([&](FaultFilesystem& fs) { return fs.RmDir(p); }); };
  ops.unlink = [](const char* p) {
    return Locked([&](FaultFilesystem& fs) { return fs.Unlink(p); });
  };
  ops.rename = [](const char* from, const char* to, unsigned int flags) {
    return Locked([&](FaultFilesystem& fs) { return fs.Rename(from, to, flags); });
  };
  ops.create = [](const char* p, mode_t mode, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Create(p, mode, fi); });
  };
  ops.mknod = [](const char* p, mode_t mode, dev_t) {
    return Locked([&](FaultFilesystem& fs) { return fs.MkNod(p, mode); });
  };
  ops.open = [](const char* p, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Open(p, fi); });
  };
  ops.read = [](const char*, char* buf, size_t size, off_t offset, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Read(buf, size, offset, fi); });
  };
  ops.write = [](const char*, const char* buf, size_t size, off_t offset, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Write(buf, size, offset, fi); });
  };
  ops.truncate = [](const char* p, off_t size, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Truncate(p, size, fi); });
  };
  ops.fallocate = [](const char*, int mode, off_t offset, off_t length, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Fallocate(mode, offset, length, fi); });
  };
  ops.fsync = [](const char*, int datasync, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Fsync(datasync, fi); });
  };
  ops.flush = [](const char*, fuse_file_info*) { return 0; };
  ops.release = [](const char*, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Release(fi); });
  };
  ops.statfs = [](const char*, struct statvfs* st) {
    return Locked([&](FaultFilesystem& fs) { return fs.StatFs(st); });
  };
  ops.chmod = [](const char* p, mode_t mode, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Chmod(p, mode, fi); });
  };
  ops.chown = [](const char* p, uid_t uid, gid_t gid, fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Chown(p, uid, gid, fi); });
  };
  ops.utimens = [](const char* p, const struct timespec tv[2], fuse_file_info* fi) {
    return Locked([&](FaultFilesystem& fs) { return fs.Utimens(p, tv, fi); });
  };
  // exFAT has neither hard nor symbolic links.
  ops.link = [](const char*, const char*) { return -EPERM; };
  ops.symlink = [](const char*, const char*) { return -EPERM; };
  return ops;
}

struct Arguments {
  char* fault = nullptr;
  char* size = nullptr;
  char* cluster = nullptr;
  char* lose_after = nullptr;
  std::string backing;
};

const fuse_opt kOptions[] = {
    {"--fault=%s", offsetof(Arguments, fault), 0},
    {"--size=%s", offsetof(Arguments, size), 0},
    {"--cluster=%s", offsetof(Arguments, cluster), 0},
    {"--lose-after=%s", offsetof(Arguments, lose_after), 0},
    FUSE_OPT_END,
};

// The first word that is not an option is the backing directory; the rest
// (the mount point) goes on to FUSE.
int TakeBacking(void* data, const char* arg, int key, fuse_args*) {
  auto* arguments = static_cast<Arguments*>(data);
  if (key == FUSE_OPT_KEY_NONOPT && arguments->backing.empty()) {
    arguments->backing = arg;
    return 0;
  }
  return 1;
}

int Usage(const char* program, const std::string& complaint) {
  fprintf(stderr, "%s: %s\n", program, complaint.c_str());
  fprintf(stderr,
          "usage: %s [--fault=<name>] [--size=<bytes>] [--cluster=<bytes>] "
          "[--lose-after=<entries>] <backing-dir> <mount-point> [FUSE options]\n",
          program);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  fuse_args args = FUSE_ARGS_INIT(argc, argv);
  Arguments arguments;
  if (fuse_opt_parse(&args, &arguments, kOptions, TakeBacking) != 0)
    return Usage(argv[0], "bad options");
  faultfs::FaultConfig config;
  if (arguments.fault != nullptr) {
    if (auto error = faultfs::ParseFault(arguments.fault, config)) return Usage(argv[0], *error);
  }
  if (arguments.size != nullptr) {
    auto bytes = faultfs::ParseByteCount(arguments.size);
    if (!bytes || *bytes == 0) return Usage(argv[0], "bad --size");
    config.capacity_bytes = *bytes;
  }
  if (arguments.cluster != nullptr) {
    auto bytes = faultfs::ParseByteCount(arguments.cluster);
    if (!bytes || *bytes < 512 || (*bytes & (*bytes - 1)) != 0)
      return Usage(argv[0], "--cluster must be a power of two of at least 512");
    config.cluster_bytes = *bytes;
  }
  if (arguments.lose_after != nullptr) {
    auto count = faultfs::ParseByteCount(arguments.lose_after);
    if (!count || *count == 0) return Usage(argv[0], "bad --lose-after");
    config.lose_after = *count;
  }
  if (arguments.backing.empty()) return Usage(argv[0], "no backing directory");
  char resolved[PATH_MAX];
  if (realpath(arguments.backing.c_str(), resolved) == nullptr)
    return Usage(argv[0], "cannot resolve " + arguments.backing);

  FaultFilesystem fs(resolved, config);
  fs.Scan();
  fuse_opt_add_arg(&args, "-ofsname=faultfs,subtype=faultfs");
  fuse_operations ops = MakeOperations();
  int status = fuse_main(args.argc, args.argv, &ops, &fs);
  fuse_opt_free_args(&args);
  free(arguments.fault);
  free(arguments.size);
  free(arguments.cluster);
  free(arguments.lose_after);
  return status;
}
