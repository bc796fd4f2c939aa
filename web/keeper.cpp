#include "web/keeper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>

#include "common/file_helpers.h"
#include "common/flash_space.h"
#include "common/session_lock.h"
#include "common/state_files.h"
#include "common/text.h"
#include "fota/fota_client.h"
#include "history/history_db.h"
#include "results/version_strings.h"
#include "tools/common/output.h"
#include "tools/common/script_progress.h"
#include "tools/packages/archives.h"
#include "tools/packages/package_checks.h"
#include "web/channel.h"

namespace {

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;
using std::chrono::minutes;
using std::chrono::seconds;

// Says that an installation was ordered, until somebody has seen its outcome.
constexpr char ORDER_FILE[] = "/opt/qast/data/webui/fotaweb_order";

constexpr int SHORT_TIMEOUT_MS = 2000;
constexpr minutes PACKAGE_TIME = minutes(15);  // a slow device looks at a large package for minutes
constexpr seconds LIMIT_IS_NEW = seconds(10);  // the daemon logs each request for it
constexpr minutes UPLOAD_MAY_REST = minutes(10);
constexpr minutes CHECKED_MAY_REST = minutes(30);

struct order {
    uint32_t newest_known;  // record, when the installation was ordered
    unsigned char mark[WEB_MARK_SIZE];
};

enum class job { NONE, CHECK, INSTALL };

template <size_t N>
void put_text(char (&field)[N], const std::string& text) {
    const size_t length = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

history_buffer read_history() {
    history_buffer records;
    (void)read_full_db(&records);
    return records;
}

uint32_t newest_record() {
    const history_buffer records = read_history();
    uint32_t newest = 0;
    for (size_t i = 0; records && i < FOTA_HISTORY_SLOTS; ++i) newest = std::max(newest, records[i].rec_id);
    return newest;
}

bool is_of_order(const fota_history_rec& record) {
    return record.rec_type == FOTA_REC_REVERT ||
           (record.rec_type == FOTA_REC_UPDATE && field_text(record.pkg_info.agent_name) == WEB_AGENT);
}

bool is_sideload_under_way() {
    return fota_is_regular_file(FOTA_SIDELOAD_COOKIE) == FOTA_RC_SUCCESS;
}

void add_progress(web_answer& answer) {
    char line[FOTA_TEXT_SIZE] = {};
    if (!read_first_line(SCRIPT_PROGRESS, line)) return;
    text_cut_line_end(line);
    const script_progress said = read_script_progress(line);
    answer.percent = said.percent;
    put_text(answer.progress, said.text);
}

struct waiting_call {
    fota_client_call call = {-1, 0, 0, 0};
    explicit waiting_call(const fota_event_msg& msg) : sent(fota_client_send(&msg, &call)) {}
    waiting_call(const waiting_call&) = delete;
    waiting_call& operator=(const waiting_call&) = delete;
    ~waiting_call() { fota_client_end(&call); }
    int sent;
};

// Asks what takes minutes. FOTA_CLIENT_NOT_YET: the daemon was killed over it, and the next one does not know
// of it. For that a second request stands behind this one, since they are answered in their order.
int ask_for_long(fota_event_msg& msg) {
    waiting_call asked(msg);
    if (asked.sent != FOTA_RC_SUCCESS)
        return asked.sent == FOTA_CLIENT_NOT_YET ? FOTA_CLIENT_TIMEOUT : asked.sent;
    fota_event_msg behind = {};
    behind.event = FOTA_MSG_GET_UPGRADE_STATUS;
    const waiting_call second(behind);
    const auto deadline = steady::now() + PACKAGE_TIME;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now());
        if (left.count() <= 0) return FOTA_CLIENT_TIMEOUT;
        pollfd waiting[] = {{asked.call.fd, POLLIN, 0}, {second.call.fd, POLLIN, 0}};
        (void)poll(waiting, std::size(waiting), static_cast<int>(left.count()));
        const int result = fota_client_receive(&asked.call, &msg);
        if (result != FOTA_CLIENT_NOT_YET || waiting[1].revents != 0) return result;
    }
}

int prepare_upload() {
    int result = FOTA_CLIENT_NOT_YET;
    // The upload is still there for the next daemon; but it may be what the first one fell over.
    for (int tries = 0; tries < 2 && result == FOTA_CLIENT_NOT_YET; ++tries) {
        fota_event_msg msg = {};
        msg.event = FOTA_MSG_SIDELOAD_PREPARE_PACKAGE;
        put_text(msg.payload.text, FOTA_WEBUI_UPLOAD);
        result = ask_for_long(msg);
    }
    return result == FOTA_CLIENT_TIMEOUT ? FOTA_CLIENT_NOT_YET : result;
}

// One at a time asks; the jobs, which take minutes, run beside that in a thread of their own.
struct keeper {
    const pid_t asker;
    std::mutex mutex = {};
    std::condition_variable changed = {};
    job under_way = job::NONE;
    bool given_up = false;  // during the check, which goes on to its end
    bool has_order = false;
    order ordered = {};
    web_answer held = {};  // UPLOADING, CHECKED and REFUSED are known here alone; READY: none of them
    unsigned char mark[WEB_MARK_SIZE] = {};
    int upload = -1;
    steady::time_point touched = {};
    uint32_t limit = 0;
    int limit_reason = FOTA_RC_SUCCESS;
    steady::time_point limit_asked = {};

    explicit keeper(pid_t process) : asker(process) { held.stage = web_stage::READY; }

    // An asker that has been taken over can fill no more of the flash than what was granted.
    void let_write(rlim_t bytes) const {
        const rlimit bound = {bytes, RLIM_INFINITY};
        (void)prlimit(asker, RLIMIT_FSIZE, &bound, nullptr);
    }

    void forget() {
        if (upload >= 0) close(upload);
        upload = -1;
        let_write(0);
        const web_answer nothing = {};
        held = nothing;
        held.stage = web_stage::READY;
    }

    // The daemon throws its own part away with the session.
    void throw_away() {
        forget();
        (void)fota_remove_a_file(FOTA_WEBUI_UPLOAD);
        (void)fota_client_clear_session_lock(WEB_AGENT, SHORT_TIMEOUT_MS);
    }

    void refuse(int reason, const std::string& detail) {
        throw_away();
        held.stage = web_stage::REFUSED;
        held.reason = reason;
        put_text(held.detail, detail);
    }

    void drop_order() {
        has_order = false;
        (void)fota_remove_a_file(ORDER_FILE);
    }

    uint32_t bytes_there() const {
        struct stat status = {};
        return upload >= 0 && fstat(upload, &status) == 0 ? static_cast<uint32_t>(status.st_size) : 0;
    }

    void ask_limit() {
        if (steady::now() - limit_asked < LIMIT_IS_NEW) return;
        limit_reason = fota_client_get_sideload_max_pkg_size(&limit, SHORT_TIMEOUT_MS);
        limit_asked = steady::now();
    }

    // The outcome of what was ordered; while there is none, its record with status 0.
    [[nodiscard]] fota_history_rec find_outcome() const {
        fota_history_rec found = {};
        const history_buffer records = read_history();
        for (size_t i = 0; records && i < FOTA_HISTORY_SLOTS; ++i) {
            const fota_history_rec& record = records[i];
            if (record.rec_id <= ordered.newest_known || !is_of_order(record)) continue;
            const bool decided = record.status != FOTA_STATUS_PENDING;
            const bool was_decided = found.status != FOTA_STATUS_PENDING;
            if (decided == was_decided ? record.rec_id > found.rec_id : decided) found = record;
        }
        return found;
    }

    void state_of_order(web_answer& answer, int result, int32_t status) const {
        answer.outcome = find_outcome();
        const bool decided = answer.outcome.status != FOTA_STATUS_PENDING;
        const bool goes_on =
            !decided && (result != FOTA_RC_SUCCESS || status != 0 || is_sideload_under_way());
        answer.stage = goes_on ? web_stage::INSTALLING : web_stage::OUTCOME;
        answer.reason = result;
        if (goes_on) add_progress(answer);
    }

    static web_answer& closed(web_answer& answer, int reason) {
        answer.stage = web_stage::CLOSED;
        answer.reason = reason;
        return answer;
    }

    web_answer state() {
        web_answer answer = held;
        answer.result = FOTA_RC_SUCCESS;
        answer.percent = -1;
        char firmware[FOTA_TEXT_SIZE];
        if (construct_fota_version_string_from_device(firmware) == FOTA_RC_SUCCESS)
            put_text(answer.firmware, firmware);
        if (under_way != job::NONE) {
            // The daemon has its hands full with that.
            answer.stage = under_way == job::CHECK ? web_stage::CHECKING : web_stage::INSTALLING;
            answer.reason = FOTA_RC_SUCCESS;
            if (under_way == job::INSTALL) add_progress(answer);
            return answer;
        }
        int32_t status = 0;
        const int result = fota_client_get_upgrade_status(&status, SHORT_TIMEOUT_MS);
        if (has_order) {
            state_of_order(answer, result, status);
            return answer;
        }
        if (held.stage == web_stage::REFUSED) return answer;
        if (result != FOTA_RC_SUCCESS) return closed(answer, result);
        if (is_sideload_under_way()) return closed(answer, FOTA_RC_SIDELOAD_IN_PROGRESS);
        if (status != 0) return closed(answer, FOTA_RC_FULL_FOTA_IN_PROGRESS);
        const fota_rc owner = fota_check_session_owner(WEB_AGENT);
        if (held.stage != web_stage::READY && owner != FOTA_RC_SUCCESS) {
            // Somebody has taken the session away, and the package went with it.
            forget();
            (void)fota_remove_a_file(FOTA_WEBUI_UPLOAD);
            held.stage = answer.stage = web_stage::REFUSED;
            held.reason = answer.reason = FOTA_RC_NO_SESSION;
            return answer;
        }
        if (owner == FOTA_RC_LOCK_NOT_AVAILABLE) {
            char holder[FOTA_TEXT_SIZE] = {};
            (void)fota_get_session_agent(holder);
            put_text(answer.holder, holder);
            return closed(answer, FOTA_RC_LOCK_NOT_AVAILABLE);
        }
        if (held.stage == web_stage::UPLOADING) answer.offset = bytes_there();
        if (held.stage != web_stage::READY) return answer;
        ask_limit();
        answer.limit = limit;
        if (limit_reason != FOTA_RC_SUCCESS) return closed(answer, limit_reason);
        return answer;
    }

    // Nobody holds the device by having gone away.
    void expire() {
        const std::lock_guard<std::mutex> lock(mutex);
        if (under_way != job::NONE || has_order) return;
        const auto rested = steady::now() - touched;
        if (held.stage == web_stage::UPLOADING && bytes_there() != held.offset) {
            held.offset = bytes_there();
            touched = steady::now();
            return;
        }
        const bool too_long = (held.stage == web_stage::UPLOADING && rested > UPLOAD_MAY_REST) ||
                              (held.stage == web_stage::CHECKED && rested > CHECKED_MAY_REST);
        if (too_long) throw_away();
        // Of a run before this one, or of a request that the daemon had no time for.
        const bool is_idle = held.stage == web_stage::READY || held.stage == web_stage::REFUSED;
        if (is_idle && !is_sideload_under_way() && fota_check_session_owner(WEB_AGENT) == FOTA_RC_SUCCESS)
            (void)fota_client_clear_session_lock(WEB_AGENT, SHORT_TIMEOUT_MS);
    }

    int open_upload(const web_request& request) {
        if (request.size == 0) return FOTA_RC_PKG_INVALID;
        if (request.size > limit) return FOTA_RC_PKG_TOO_BIG;
        const bool goes_on = upload >= 0 && request.size == held.size &&
                             std::memcmp(mark, request.mark, sizeof mark) == 0 &&
                             bytes_there() <= request.size;
        const int64_t available = get_available_flash_space();
        if (available + bytes_there() < request.size) return FOTA_RC_NO_FLASH_SPACE;
        if (goes_on) return lseek(upload, 0, SEEK_END) >= 0 ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE;
        const int locked = fota_client_create_session_lock(WEB_AGENT, SHORT_TIMEOUT_MS);
        if (locked != FOTA_RC_SUCCESS) return locked;
        forget();
        std::error_code error;
        fs::create_directories(fs::path(FOTA_WEBUI_UPLOAD).parent_path(), error);
        (void)fota_remove_a_file(FOTA_WEBUI_UPLOAD);
        // What lies there under that name was put there by somebody else.
        upload = open(FOTA_WEBUI_UPLOAD, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (upload < 0) {
            throw_away();
            return FOTA_RC_FILE_CREATE_FAILED;
        }
        std::memcpy(mark, request.mark, sizeof mark);
        held.stage = web_stage::UPLOADING;
        held.size = request.size;
        return FOTA_RC_SUCCESS;
    }

    int start_upload(const web_request& request) {
        web_answer now = state();
        if (now.stage == web_stage::REFUSED) {
            forget();
            now = state();
        }
        if (now.stage == web_stage::CLOSED) return now.reason;
        if (now.stage != web_stage::READY && now.stage != web_stage::UPLOADING) return FOTA_RC_INVALID_PARAM;
        const int result = open_upload(request);
        if (result != FOTA_RC_SUCCESS) return result;
        held.limit = limit;
        touched = steady::now();
        let_write(request.size);
        return FOTA_RC_SUCCESS;
    }

    int start_check(uint32_t size) {
        if (under_way != job::NONE || held.stage != web_stage::UPLOADING || bytes_there() != size ||
            size == 0)
            return FOTA_RC_INVALID_PARAM;
        let_write(0);
        const bool synced = fsync(upload) == 0;
        held.size = size;
        if (!synced) {
            refuse(FOTA_RC_FILE_WRITE_FAILED, "");
            return FOTA_RC_FILE_WRITE_FAILED;
        }
        given_up = false;
        under_way = job::CHECK;
        changed.notify_all();
        return FOTA_RC_SUCCESS;
    }

    int start_installation(const web_request& request) {
        if (under_way != job::NONE || state().stage != web_stage::CHECKED) return FOTA_RC_INVALID_PARAM;
        ordered.newest_known = newest_record();
        std::memcpy(ordered.mark, request.mark, sizeof ordered.mark);
        const fota_rc written = fota_create_a_file(ORDER_FILE, &ordered, sizeof ordered);
        if (written != FOTA_RC_SUCCESS) return static_cast<int>(written);
        has_order = true;
        under_way = job::INSTALL;
        changed.notify_all();
        return FOTA_RC_SUCCESS;
    }

    int give_up() {
        if (under_way == job::CHECK) {
            given_up = true;
            return FOTA_RC_SUCCESS;
        }
        const web_stage stage = state().stage;
        if (stage == web_stage::OUTCOME) {
            drop_order();
            forget();
            fota_history_rec ignored = {};
            (void)fota_client_get_update_status(WEB_AGENT, &ignored, SHORT_TIMEOUT_MS);
            return FOTA_RC_SUCCESS;
        }
        if (under_way != job::NONE || stage == web_stage::INSTALLING) return FOTA_RC_INVALID_PARAM;
        if (held.stage == web_stage::REFUSED) {
            forget();
        } else if (held.stage != web_stage::READY) {
            throw_away();
        }
        return FOTA_RC_SUCCESS;
    }

    // What was found, without the lock: it takes long.
    static web_answer look_at_package() {
        web_answer found = {};
        found.stage = web_stage::REFUSED;
        found.reason = prepare_upload();
        if (found.reason != FOTA_RC_SUCCESS) return found;
        check_options how;
        how.keys = fs::path(FOTA_DEVICE_KEY).parent_path();
        const check_report report = check_package_file(FOTA_UPGRADE_PKG, UNZIP_READER, how);
        if (!report.good()) {
            found.reason = FOTA_RC_PKG_VALIDATION_FAILED;
            put_text(found.detail, report.results.back().name + ": " + report.results.back().text);
            return found;
        }
        char device[FOTA_TEXT_SIZE] = {};
        (void)construct_fota_version_string_from_device(device);
        const auto& sources = report.source_versions;
        const bool fits = std::ranges::find(sources, device) != sources.end();
        if (!sources.empty()) put_text(found.from, fits ? device : sources.front());
        if (!report.target_versions.empty()) put_text(found.to, report.target_versions.front());
        put_text(found.description, report.description);
        found.estimate_secs = report.estimate_secs.value_or(0);
        found.stage = fits ? web_stage::CHECKED : web_stage::REFUSED;
        if (!fits) found.reason = FOTA_RC_SRC_VERSION_MISMATCH;
        return found;
    }

    void finish_check(const web_answer& found) {
        if (given_up) return throw_away();
        if (found.stage == web_stage::REFUSED) {
            refuse(found.reason, field_text(found.detail).data());
        } else {
            close(upload);
            upload = -1;
            touched = steady::now();
        }
        const web_answer before = held;
        held = found;
        held.size = before.size;
    }

    void check() {
        web_answer found = {};
        try {
            found = look_at_package();
        } catch (const std::exception& error) {
            found = {};
            found.stage = web_stage::REFUSED;
            found.reason = FOTA_RC_FAILURE;
            put_text(found.detail, error.what());
        }
        const std::lock_guard<std::mutex> lock(mutex);
        finish_check(found);
        under_way = job::NONE;
    }

    void install() {
        fota_event_msg msg = {};
        msg.event = FOTA_MSG_SIDELOAD_START_INSTALLATION;
        put_text(msg.payload.sideload.agent_id, WEB_AGENT);
        put_text(msg.payload.sideload.pkg_path, FOTA_UPGRADE_PKG);
        const int result = ask_for_long(msg);
        const uint32_t estimate = result == FOTA_RC_SUCCESS ? msg.payload.sideload.est_update_time : 0;
        const std::lock_guard<std::mutex> lock(mutex);
        under_way = job::NONE;
        // Without an answer it may have begun all the same: what is on flash then tells.
        if (result == FOTA_RC_SUCCESS || result == FOTA_CLIENT_TIMEOUT || result == FOTA_CLIENT_NOT_YET) {
            const uint32_t told = held.estimate_secs;
            forget();
            held.estimate_secs = estimate != 0 ? estimate : told;
            return;
        }
        drop_order();
        refuse(result, "");
    }

    [[noreturn]] void work() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [this] { return under_way != job::NONE; });
            const job next = under_way;
            lock.unlock();
            if (next == job::CHECK) check();
            if (next == job::INSTALL) install();
        }
    }

    int carry_out(const web_request& request) {
        switch (request.ask) {
            case web_ask::STATE:
            case web_ask::HISTORY:
                return FOTA_RC_SUCCESS;
            case web_ask::UPLOAD:
                return under_way == job::NONE ? start_upload(request) : FOTA_RC_INVALID_PARAM;
            case web_ask::CHECK:
                return start_check(request.size);
            case web_ask::INSTALL:
                return start_installation(request);
            case web_ask::GIVE_UP:
                return give_up();
        }
        return FOTA_RC_INVALID_PARAM;
    }

    // False: the asker is gone.
    bool answer(int channel, const web_request& request) {
        if (request.ask == web_ask::HISTORY) {
            static web_history history;
            history = {};
            const history_buffer records = read_history();
            for (size_t i = 0; records && i < FOTA_HISTORY_SLOTS; ++i) {
                if (records[i].rec_id == 0 || records[i].rec_type == FOTA_REC_FACTORY_CFG) continue;
                history.records[history.count++] = records[i];
            }
            std::sort(history.records, history.records + history.count,
                      [](const auto& one, const auto& other) { return one.rec_id > other.rec_id; });
            history.result = FOTA_RC_SUCCESS;
            return send_record(channel, &history, sizeof history);
        }
        const std::lock_guard<std::mutex> lock(mutex);
        const int result = carry_out(request);
        web_answer told = state();
        told.result = result;
        const bool hands_out = request.ask == web_ask::UPLOAD && result == FOTA_RC_SUCCESS;
        return send_record(channel, &told, sizeof told, hands_out ? upload : -1);
    }
};

}  // namespace

web_start read_order() {
    web_start start = {};
    order ordered = {};
    const file_ptr file = open_regular_for_reading(ORDER_FILE);
    start.has_mark = file && fread(&ordered, sizeof ordered, 1, file.get()) == 1;
    if (start.has_mark) std::memcpy(start.mark, ordered.mark, sizeof start.mark);
    return start;
}

void keep_rights(int channel, pid_t asker) {
    static keeper kept(asker);
    const file_ptr file = open_regular_for_reading(ORDER_FILE);
    kept.has_order = file && fread(&kept.ordered, sizeof kept.ordered, 1, file.get()) == 1;
    if (!kept.has_order) (void)fota_remove_a_file(FOTA_WEBUI_UPLOAD);
    kept.expire();
    std::thread([] { kept.work(); }).detach();
    for (;;) {
        constexpr int EXPIRE_INTERVAL_MS = 30000;
        pollfd waiting = {channel, POLLIN, 0};
        const int ready = poll(&waiting, 1, EXPIRE_INTERVAL_MS);
        kept.expire();
        if (ready <= 0) continue;
        web_request request = {};
        if (!receive_record(channel, &request, sizeof request) || !kept.answer(channel, request)) break;
    }
    // What is being looked at stays to the daemon; the next start throws it away.
    const std::lock_guard<std::mutex> lock(kept.mutex);
    if (kept.under_way == job::NONE && kept.held.stage != web_stage::READY &&
        kept.held.stage != web_stage::REFUSED)
        kept.throw_away();
}
