#include "powersave.h"

#include "service_files.h"

namespace {

constexpr char FOLDER[] = "/run/vexa/powersave";
constexpr int POWERSAVE_FAILURE = 0xD0001;

}  // namespace

extern "C" int powersave_wakelock_acquire(const char* name) {
    const bool held = platform::make_folder(FOLDER) && platform::replace_file(FOLDER, name, "", 0);
    return held ? POWERSAVE_SUCCESS : POWERSAVE_FAILURE;
}

extern "C" int powersave_wakelock_release(const char* name) {
    return platform::remove_file(FOLDER, name) ? POWERSAVE_SUCCESS : POWERSAVE_FAILURE;
}
