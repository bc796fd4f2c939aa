// What a service manager hears through $NOTIFY_SOCKET, when it gave that socket. Nothing waits for it. Any
// thread.
#pragma once

namespace platform {

// That this process serves from now on, or that it ends.
void tell_service_manager_serving(bool serving);

// That it is alive.
void tell_service_manager_alive();

}  // namespace platform
