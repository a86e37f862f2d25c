#include "campaign/kernel_log.h"

#include <gtest/gtest.h>

namespace {

TEST(KernelLog, KnowsTheKernelsBugReports) {
  for (const char* report : {"BUG: KASAN: slab-out-of-bounds in exfat_find_dir_entry+0x1f0/0x8a4 [exfat]",
                             "WARNING: CPU: 1 PID: 4242 at fs/exfat/fatent.c:111 exfat_ent_get+0x2c/0x40",
                             "kernel BUG at fs/exfat/inode.c:123!", "Internal error: Oops: 96000004 [#1] SMP",
                             "UBSAN: shift-out-of-bounds in fs/exfat/super.c:502:19", "Call trace:",
                             "INFO: task mount:321 blocked for more than 120 seconds."})
    EXPECT_TRUE(IsKernelBugReport(report)) << report;
  for (const char* message : {"exFAT-fs (loop0): failed to load upcase table", "DEBUG: mount took 3 ms",
                              "NOWARNING: none"})
    EXPECT_FALSE(IsKernelBugReport(message)) << message;
}

// On a machine where other tests use loop devices too, only the row's own
// devices' lines are the row's.
TEST(KernelLog, TakesWhatConcernsTheRowsDevices) {
  const std::vector<std::string> row{"loop1"};
  EXPECT_TRUE(ConcernsRow("exFAT-fs (loop1): failed to load alloc-bitmap", row));
  EXPECT_TRUE(ConcernsRow("blk_update_request: I/O error, dev loop1, sector 64", row));
  EXPECT_FALSE(ConcernsRow("exFAT-fs (loop12): failed to load alloc-bitmap", row));
  EXPECT_FALSE(ConcernsRow("Buffer I/O error on dev loop0, logical block 3", row));
  EXPECT_FALSE(ConcernsRow("loop1: detected capacity change from 0 to 65536", row));
  EXPECT_FALSE(ConcernsRow("nfs: server refused the connection", row));
  EXPECT_TRUE(ConcernsRow("fuse: Unknown parameter 'x'", row));
  EXPECT_TRUE(ConcernsRow("BUG: unable to handle page fault for address: 0000000000000010", row));
}

TEST(KernelLog, ShortensMessagesForTheTable) {
  EXPECT_EQ(ShortKernelMessage("exFAT-fs (loop0): error, invalid access to FAT free cluster (entry 0x00000005)"),
            "error, invalid access to FAT free cluster");
  EXPECT_EQ(ShortKernelMessage("exFAT-fs (loop3): Invalid boot checksum (boot checksum : 0xa, checksum : 0xb)"),
            "Invalid boot checksum");
  EXPECT_EQ(ShortKernelMessage("exFAT-fs (loop0): a (b) c (d (e)) f"), "a c f");
  EXPECT_EQ(ShortKernelMessage("Call trace:"), "Call trace:");
}

}  // namespace
