#include "tools/common/failure.h"

#include <cerrno>
#include <cstring>

failure system_failure(const std::string& what) {
    return failure(what + ": " + strerror(errno));
}
