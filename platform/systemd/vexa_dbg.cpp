#include "vexa_dbg.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "debug_log.h"

namespace {

struct log_context {
    char event[64];
    char agent[255];
    char record[12];
};
thread_local log_context context;

// One entry for the journal, in its own protocol: a field is its name, a line end, its size as 64-bit
// integer, the bytes and a line end, so that no text can make itself another field. The pieces stay where
// they are.
struct journal_entry {
    iovec pieces[32];
    uint64_t sizes[8];
    size_t piece_count, field_count;
};

void add_piece(journal_entry* entry, const void* bytes, size_t size) {
    entry->pieces[entry->piece_count++] = {const_cast<void*>(bytes), size};
}

// `name` ends in a line end. A field without text is left out.
void add_field(journal_entry* entry, const char* name, const char* text, size_t size) {
    if (size == 0) return;
    uint64_t& stated = entry->sizes[entry->field_count++];
    stated = size;
    add_piece(entry, name, strlen(name));
    add_piece(entry, &stated, sizeof stated);
    add_piece(entry, text, size);
    add_piece(entry, "\n", 1);
}

// A journal that does not keep up, or is not there, is not waited for: the file has the line too. False when
// it has not taken it.
bool send_to_journal(const journal_entry& entry) {
    static const int socket_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = const_cast<iovec*>(entry.pieces);
    message.msg_iovlen = entry.piece_count;
    return sendmsg(socket_fd, &message, MSG_NOSIGNAL) >= 0;
}

void write_journal(const char* identifier, int priority, const char* text, size_t size) {
    constexpr int SEVERITY_MASK = 7, FACILITY_SHIFT = 3;
    static std::atomic<unsigned> lost_lines;
    const unsigned lost = lost_lines.exchange(0);
    char severity[12], facility[12] = "", missing[12] = "";
    snprintf(severity, sizeof severity, "%d", priority & SEVERITY_MASK);
    if (priority > SEVERITY_MASK) snprintf(facility, sizeof facility, "%d", priority >> FACILITY_SHIFT);
    if (lost > 0) snprintf(missing, sizeof missing, "%u", lost);
    journal_entry entry = {};
    add_field(&entry, "MESSAGE\n", text, size);
    add_field(&entry, "PRIORITY\n", severity, strlen(severity));
    add_field(&entry, "SYSLOG_FACILITY\n", facility, strlen(facility));
    add_field(&entry, "SYSLOG_IDENTIFIER\n", identifier, strlen(identifier));
    add_field(&entry, "FOTA_EVENT\n", context.event, strlen(context.event));
    add_field(&entry, "FOTA_AGENT\n", context.agent, strlen(context.agent));
    add_field(&entry, "FOTA_RECORD\n", context.record, strlen(context.record));
    add_field(&entry, "FOTA_LOST\n", missing, strlen(missing));
    if (!send_to_journal(entry)) lost_lines += lost + 1;
}

}  // namespace

extern "C" void vexa_dbg_log(const char*, int level, const char* format, ...) {
    const int saved_errno = errno;
    platform::log_line line;
    va_list args;
    va_start(args, format);
    const bool logs = platform::write_debug_log(&line, format, args);
    va_end(args);
    if (logs) write_journal("fotad", level, line.bytes + line.start, line.end - line.start);
    errno = saved_errno;
}

extern "C" void vexa_dbg_syslog(int priority, const char* format, ...) {
    const int saved_errno = errno;
    char text[8192] = "";
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    // Another identifier, so that who asks for the daemon's lines has none of them twice.
    write_journal("fota", priority, text, strcspn(text, "\n"));
    errno = saved_errno;
}

extern "C" void vexa_dbg_context(const char* event, const char* agent, uint32_t record) {
    if (event != nullptr) {
        context = {};
        snprintf(context.event, sizeof context.event, "%s", event);
    }
    if (agent != nullptr) snprintf(context.agent, sizeof context.agent, "%s", agent);
    if (record != 0) snprintf(context.record, sizeof context.record, "%u", record);
}
