// What holds the device awake on behalf of the wake locks. Any thread.
#pragma once

namespace platform {

// Gives back whatever would hold a reset up.
void release_inhibitors();

}  // namespace platform
