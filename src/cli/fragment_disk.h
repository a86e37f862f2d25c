#pragma once

#include <string>

// "fragdisk": fills the volume with files reserved by posix_fallocate, frees
// one directory's share (a twentieth of the files, scattered between the
// others), refills it with files of a new size, and repeats until 20 fills
// have ended in an allocation failure. The volume is left full. `volume` is
// used as given. Returns 0; failures (an existing dir0 among them) throw.
int FragmentDisk(const std::string& volume);
