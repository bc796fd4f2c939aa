#include "dsm.h"

#include "service_files.h"

namespace {

// The manager makes the folder; without it nobody would carry the request out.
int hand_over(const char* request, int argument) {
    constexpr int DSM_FAILURE = 0x70001;
    return platform::replace_with_number("/run/vexa/dsm", request, argument) ? DSM_SUCCESS : DSM_FAILURE;
}

}  // namespace

extern "C" int dsm_set_persistent_mode(int run_level) {
    return hand_over("persistent_mode", run_level);
}

extern "C" int dsm_reset_device(int reason) {
    return hand_over("reset_device", reason);
}
