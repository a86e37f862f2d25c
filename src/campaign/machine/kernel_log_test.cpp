#include "campaign/machine/kernel_log.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

TEST(KernelLog, ClassifiesBugReportsAndFailuresOfTheStore) {
  for (const char* report : {"BUG: KASAN: slab-out-of-bounds in exfat_find_dir_entry+0x1f0/0x8a4 [exfat]",
                             "WARNING: CPU: 1 PID: 4242 at fs/exfat/fatent.c:111 exfat_ent_get+0x2c/0x40",
                             "kernel BUG at fs/exfat/inode.c:123!", "Internal error: Oops: 96000004 [#1] SMP",
                             "Unable to handle kernel NULL pointer dereference at virtual address 0000000000000010",
                             "general protection fault, probably for non-canonical address 0xdead000000000100",
                             "UBSAN: shift-out-of-bounds in fs/exfat/super.c:502:19", "Call trace:",
                             "BUG: KFENCE: use-after-free read in exfat_get_dentry",
                             "INFO: task mount:321 blocked for more than 120 seconds.",
                             "mount invoked oom-killer: gfp_mask=0xcc0(GFP_KERNEL), order=0",
                             "refcount_t: underflow; use-after-free.", "list_add corruption. next->prev should be"})
    EXPECT_EQ(Classify(report), KernelClass::kBug) << report;
  for (const char* failure : {"Buffer I/O error on dev loop0, logical block 3, lost async page write",
                              "loop: Write error at byte offset 4096, length 4096.",
                              "critical space allocation error, dev loop0, sector 2048 op 0x1:(WRITE)",
                              "I/O error, dev loop0, sector 64 op 0x0:(READ) flags 0x0"})
    EXPECT_EQ(Classify(failure), KernelClass::kIoError) << failure;
  for (const char* message : {"exFAT-fs (loop0): failed to load upcase table", "DEBUG: mount took 3 ms",
                              "NOWARNING: none"})
    EXPECT_EQ(Classify(message), KernelClass::kNote) << message;
}

// On a machine where other tests use loop devices too, only the row's own
// devices' lines are the row's; a bug report naming no device is.
TEST(KernelLog, TakesWhatConcernsTheRowsDevices) {
  const std::vector<std::string> row{"loop1", "mmcblk0p3"};
  EXPECT_TRUE(ConcernsRow("exFAT-fs (loop1): failed to load alloc-bitmap", row));
  EXPECT_TRUE(ConcernsRow("I/O error, dev mmcblk0p3, sector 64 op 0x0:(READ)", row));
  EXPECT_FALSE(ConcernsRow("exFAT-fs (loop12): failed to load alloc-bitmap", row));
  EXPECT_FALSE(ConcernsRow("Buffer I/O error on dev loop0, logical block 3", row));
  EXPECT_FALSE(ConcernsRow("loop1: detected capacity change from 0 to 65536", row));
  EXPECT_FALSE(ConcernsRow("nfs: server refused the connection", row));
  EXPECT_TRUE(ConcernsRow("fuse: Unknown parameter 'x'", row));
  EXPECT_TRUE(ConcernsRow("BUG: unable to handle page fault for address: 0000000000000010", row));
  EXPECT_TRUE(ConcernsRow("loop: Write error at byte offset 4096, length 4096.", row));
  EXPECT_FALSE(ConcernsRow("WARNING: CPU: 0 PID: 7 at fs/exfat/inode.c:9 [exfat] (loop2)", row));
}

// Records overwritten before they were read show as a gap in the sequence
// numbers, counted even where the records between were someone else's.
TEST(KernelLog, CountsTheRecordsAnOverrunLost) {
  std::unique_ptr<KernelLog> log;
  try {
    log = std::make_unique<KernelLog>();
  } catch (const std::exception& e) {
    GTEST_SKIP() << e.what();
  }
  KernelWords words;
  log->Take("6,100,5000,-;exFAT-fs (loop3): Volume was not properly unmounted.\n", {"loop3"}, words);
  log->Take("6,101,5001,-;nfs: server not responding\n", {"loop3"}, words);
  log->Take("4,105,5002,-;WARNING: CPU: 0 PID: 7 at fs/exfat/fatent.c:9\n SUBSYSTEM=exfat\n", {"loop3"}, words);
  EXPECT_EQ(words.lost, 3u);
  ASSERT_EQ(words.messages.size(), 2u);
  EXPECT_EQ(words.messages[1].kind, KernelClass::kBug);
  EXPECT_EQ(words.messages[1].text, "WARNING: CPU: 0 PID: 7 at fs/exfat/fatent.c:9");
}

TEST(KernelLog, ShortensMessagesForTheTable) {
  EXPECT_EQ(ShortKernelMessage("exFAT-fs (loop0): error, invalid access to FAT free cluster (entry 0x00000005)"),
            "error, invalid access to FAT free cluster");
  EXPECT_EQ(ShortKernelMessage("exFAT-fs (loop0): a (b) c (d (e)) f"), "a c f");
  EXPECT_EQ(ShortKernelMessage("Call trace:"), "Call trace:");
}

}  // namespace
