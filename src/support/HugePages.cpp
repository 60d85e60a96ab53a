#include "support/HugePages.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace cutlark::HugePages {

namespace {

constexpr const char* kTunable = "glibc.malloc.hugetlb=1";

bool kernelOffersThem() {
    std::ifstream mode("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string text;
    std::getline(mode, text);
    // "always [madvise] never": either of the first two lets glibc's advice through.
    return text.find("[always]") != std::string::npos || text.find("[madvise]") != std::string::npos;
}

} // namespace

void restartWithHugePages(char** argv) {
    if (!argv || !argv[0]) return;
    const char* current = std::getenv("GLIBC_TUNABLES");
    if (current && std::strstr(current, "glibc.malloc.hugetlb")) return; // set already, by us or by the user
    if (std::getenv("CUTLARK_SMALL_PAGES")) return;
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload && std::strstr(preload, "vgpreload")) return; // valgrind follows a restart badly
    if (!kernelOffersThem()) return;

    std::string value = current && *current ? std::string(current) + ":" + kTunable : std::string(kTunable);
    if (setenv("GLIBC_TUNABLES", value.c_str(), 1) != 0) return;
    execv("/proc/self/exe", argv);
    // Still here: the restart failed. The environment keeps the tunable so no child tries again.
}

} // namespace cutlark::HugePages
