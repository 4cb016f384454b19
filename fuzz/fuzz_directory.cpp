#include "fuzz/fuzz_directory.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "fuzz/fuzz_check.h"

namespace zeb_fuzz {

namespace {

namespace fs = std::filesystem;

std::string make_directory() {
    std::error_code ignored;
    const char *given = std::getenv("ZEB_FUZZ_DIRECTORY");
    const std::string parent = given != nullptr                        ? given
                               : fs::is_directory("/dev/shm", ignored) ? "/dev/shm"
                                                                       : fs::temp_directory_path().string();
    std::string path = parent + "/zeb-fuzz.XXXXXX";
    FUZZ_CHECK(mkdtemp(path.data()) != nullptr);
    return path;
}

}  // namespace

const std::string &fuzz_directory() {
    struct holder {
        std::string path = make_directory();
        ~holder() {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    };
    static const holder s_directory;
    return s_directory.path;
}

void empty_fuzz_directory() {
    for (const fs::directory_entry &entry : fs::directory_iterator(fuzz_directory())) {
        std::error_code error;
        fs::remove_all(entry.path(), error);
        FUZZ_CHECK(!error);
    }
}

}  // namespace zeb_fuzz
