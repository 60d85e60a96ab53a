#pragma once

namespace cutlark::HugePages {

/// Makes the C library back its large blocks with transparent huge pages, for the whole process.
///
/// A decoded 12-megapixel photograph is 48 MB of fresh memory; on a virtual machine the first touch
/// of every 4 KB page costs more than the pixel work on it (about 120 ms per 48 MB, against 5 ms in
/// 2 MB pages). glibc only reads its `glibc.malloc.hugetlb` tunable at start-up, so this adds it to
/// `GLIBC_TUNABLES` and starts the program again in place; call it first thing in `main`. It does
/// nothing when the tunable is already set, when `CUTLARK_SMALL_PAGES` is set, under valgrind, or
/// when the kernel offers no transparent huge pages. If the restart fails the program simply goes on.
void restartWithHugePages(char** argv);

} // namespace cutlark::HugePages
