// The client library against a daemon's side that misbehaves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "fota/fota_client.h"

namespace {

constexpr int T = 20000;  // milliseconds
constexpr int SUCCESS = FOTA_RC_SUCCESS;
constexpr size_t SEQUENCE_OFFSET = 68;

mqd_t make_queue(const std::string& name) {
    mq_attr form = {};
    form.mq_msgsize = FOTA_REQUEST_SIZE;
    form.mq_maxmsg = FOTA_REQUEST_QUEUE_DEPTH;
    return mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600, &form);
}

bool send(mqd_t queue, const fota_event_msg& msg, size_t size = sizeof(fota_event_msg)) {
    const timespec deadline = {time(nullptr) + 2, 0};  // the reader may have gone
    return mq_timedsend(queue, reinterpret_cast<const char*>(&msg), size, 0, &deadline) == 0;
}

std::string reply_name(const fota_event_msg& msg) {
    return reinterpret_cast<const char*>(msg.routing_header);
}

// False when the client has gone.
bool answer(const fota_event_msg& msg, size_t size = sizeof(fota_event_msg)) {
    const mqd_t queue = mq_open(reply_name(msg).c_str(), O_WRONLY | O_CLOEXEC);
    const bool is_sent = send(queue, msg, size);
    mq_close(queue);
    return is_sent;
}

void succeed(fota_event_msg& msg) {
    msg.result = FOTA_RC_SUCCESS;
    answer(msg);
}

std::string reply_queues() {
    std::string names;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/mqueue")) {
        if (entry.path().filename() != "fota_mq") names.append("/").append(entry.path().filename());
    }
    return names;
}

struct Client : testing::Test {
    mqd_t queue = -1;
    std::mutex mutex = {};
    std::vector<fota_event_msg> requests = {};
    std::thread thread = {};
    std::atomic<uint32_t> setting = 0;  // what a test tells its `serve`, which may outlast the test's body
    std::atomic<mode_t> mode = 0;

    void SetUp() override { ASSERT_GE(queue = make_queue(FOTA_REQUEST_QUEUE), 0); }

    // Hands each request to `serve`, on a thread of its own, until one has the event -1.
    void start(std::function<void(fota_event_msg&)> serve) {
        thread = std::thread([this, serve] {
            for (fota_event_msg msg = {};;) {
                mq_receive(queue, reinterpret_cast<char*>(&msg), sizeof msg, nullptr);
                if (msg.event == -1) break;
                mutex.lock();
                requests.push_back(msg);
                mutex.unlock();
                serve(msg);
            }
        });
    }

    std::vector<fota_event_msg> sent() {
        const std::lock_guard lock(mutex);
        return requests;
    }

    void TearDown() override {
        fota_event_msg msg = {};
        msg.event = -1;
        send(queue, msg);
        thread.join();
        mq_close(queue);
        mq_unlink(FOTA_REQUEST_QUEUE);
    }
};

TEST_F(Client, AnswersToOthersAreDroppedAndTheDeadlineHolds) {
    start([this](fota_event_msg& msg) {
        fota_event_msg foreign = msg;
        foreign.result = FOTA_RC_FAILURE;
        foreign.routing_header[SEQUENCE_OFFSET] ^= 1;
        answer(foreign);
        for (int i = 0; setting != 0 && i < 500 && answer(foreign); ++i) usleep(10000);
        msg.result = FOTA_RC_FAILURE;
        answer(msg, sizeof msg - 1);
        succeed(msg);
    });
    EXPECT_EQ(fota_client_decrypt_pkg(T), SUCCESS);
    setting = 1;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(fota_client_decrypt_pkg(100), FOTA_CLIENT_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(waited >= std::chrono::milliseconds(100) && waited < std::chrono::seconds(3));
}

TEST_F(Client, ReplyQueueIsPrivateAndGoneAfterwards) {
    for (int i = 0; i < FOTA_REQUEST_QUEUE_DEPTH; ++i) send(queue, {});
    EXPECT_EQ(fota_client_decrypt_pkg(50), FOTA_CLIENT_TIMEOUT) << "a full request queue";
    EXPECT_EQ(reply_queues(), "");

    start([this](fota_event_msg& msg) {
        struct stat info = {};
        stat(("/dev/mqueue" + reply_name(msg)).c_str(), &info);
        mode = info.st_mode & 0777;
        if (setting != 0) succeed(msg);
    });
    EXPECT_EQ(fota_client_decrypt_pkg(50), FOTA_CLIENT_TIMEOUT);
    EXPECT_EQ(reply_queues(), "");
    setting = 1;
    const mode_t mask = umask(0777);
    EXPECT_EQ(fota_client_decrypt_pkg(T), SUCCESS);
    umask(mask);
    EXPECT_EQ(mode, 0600u);
    EXPECT_EQ(reply_queues(), "");

    // The name that comes next belongs to somebody else.
    std::string name = reply_name(sent().back());
    const size_t number = name.rfind('.') + 1;
    name = name.substr(0, number) + std::to_string(std::stoul(name.substr(number)) + 1);
    mq_close(make_queue(name));
    EXPECT_EQ(fota_client_decrypt_pkg(T), SUCCESS);
    EXPECT_NE(reply_name(sent().back()), name);
    fota_client_remove_reply_queues();
    EXPECT_EQ(reply_queues(), name);
    mq_unlink(name.c_str());
}

TEST_F(Client, EndingRemovesTheReplyQueuesOfThisProcessesCalls) {
    start([](fota_event_msg& msg) {
        if (msg.event == FOTA_MSG_DECRYPT_PKG) succeed(msg);
    });
    for (int i = 0; i < 64; ++i) EXPECT_EQ(fota_client_decrypt_pkg(T), SUCCESS);  // room for as many at once
    std::vector<std::thread> calls(2);
    for (auto& call : calls) call = std::thread([] { EXPECT_EQ(fota_client_factory_reset(T), SUCCESS); });
    while (sent().size() < 64 + calls.size()) usleep(1000);
    const std::vector<fota_event_msg> all_sent = sent();
    const fota_event_msg* const waiting = &all_sent[64];
    const std::string all = reply_queues(), name = reply_name(waiting[0]);
    const pid_t child = fork();
    if (child == 0) {
        const std::string own = "/fota_reply." + std::to_string(getpid()) + name.substr(name.rfind('.'));
        mq_close(make_queue(own));
        fota_client_remove_reply_queues();
        _exit(mq_unlink(own.c_str()));
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "a child has no calls under way";
    EXPECT_EQ(reply_queues(), all);
    const mqd_t queues[] = {mq_open(name.c_str(), O_WRONLY),
                            mq_open(reply_name(waiting[1]).c_str(), O_WRONLY)};
    fota_client_remove_reply_queues();
    EXPECT_EQ(reply_queues(), "");
    for (size_t i = 0; i < calls.size(); ++i) {
        fota_event_msg msg = waiting[i];
        msg.result = FOTA_RC_SUCCESS;
        send(queues[i], msg);
        mq_close(queues[i]);
    }
    for (auto& call : calls) call.join();
}

TEST_F(Client, CallsThatDoNotWaitAreAnsweredInTheirTimeAndLeaveNothing) {
    fota_event_msg msg = {}, got = {};
    fota_client_call calls[FOTA_REQUEST_QUEUE_DEPTH], more;
    for (auto& call : calls) ASSERT_EQ(fota_client_send(&msg, &call), SUCCESS);
    const std::string all = reply_queues();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(fota_client_send(&msg, &more), FOTA_CLIENT_NOT_YET) << "a full request queue";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_EQ(more.fd, -1);
    EXPECT_EQ(fota_client_receive(&more, &got), FOTA_CLIENT_BAD_ARGUMENT);
    fota_client_end(&more);
    EXPECT_EQ(fota_client_receive(&calls[0], &got), FOTA_CLIENT_NOT_YET);
    const pid_t child = fork();
    if (child == 0) {
        fota_client_end(&calls[0]);
        _exit(reply_queues() == all ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "a child ends its copy alone";

    start([](fota_event_msg& asked) {
        asked.payload.value = 77;
        fota_event_msg foreign = asked;
        foreign.routing_header[SEQUENCE_OFFSET] ^= 1;
        answer(foreign);
        succeed(asked);
    });
    for (auto& call : calls) {
        int result = FOTA_CLIENT_NOT_YET;
        for (pollfd waited = {call.fd, POLLIN, 0};
             result == FOTA_CLIENT_NOT_YET && poll(&waited, 1, T) == 1;) {
            result = fota_client_receive(&call, &got);
        }
        EXPECT_TRUE(result == SUCCESS && got.payload.value == 77) << result;
        EXPECT_EQ(fota_client_receive(&call, &got), FOTA_CLIENT_NOT_YET) << "a second answer";
        fota_client_end(&call);
        fota_client_end(&call);
    }
    EXPECT_EQ(reply_queues(), "");
    ASSERT_EQ(fota_client_send(&msg, &more), SUCCESS);
    fota_client_end(&more);
    EXPECT_EQ(reply_queues(), "") << "given up";
    mq_unlink(FOTA_REQUEST_QUEUE);
    EXPECT_EQ(fota_client_send(&msg, &more), FOTA_CLIENT_NO_DAEMON);
}

// Each thing that may happen in the folder which the bus is, and what comes of it.
TEST(Broadcasts, ComeOneByOneWithTheirValue) {
    const std::string bus = "/run/vexa/msgbus/", record(sizeof(fota_history_rec), 'x');
    EXPECT_EQ(fota_client_broadcasts_open(), FOTA_CLIENT_NO_DAEMON);
    std::filesystem::create_directories(bus);
    const int fd = fota_client_broadcasts_open();
    ASSERT_GE(fd, 0);
    const struct {
        std::string name, bytes;
        int key, value;
    } rows[] = {
        {"fota.upgrade_status", {"\2\0\0\0\0\0\0", 8}, FOTA_BROADCAST_UPGRADE_STATUS, 2},
        {"fota.update_status", record, FOTA_BROADCAST_UPDATE_STATUS, 0},
        {"fota.backup_before_update", {"\x2c\1\0", 4}, FOTA_BROADCAST_BACKUP_BEFORE_UPDATE, 300},
        {"fota.revert_status", record + "x", 0, 0},
        {"fota.revert_status", record, FOTA_BROADCAST_REVERT_STATUS, 0},
        {std::string(255, 'k'), record, 0, 0},
    };
    const auto set = [&bus](const std::string& name, const std::string& bytes) {
        std::ofstream(bus + ".new") << bytes;
        std::filesystem::rename(bus + ".new", bus + name);
    };
    pollfd waited = {fd, POLLIN, 0};
    fota_broadcast got = {};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        set(row.name, row.bytes);
        set("k", "");
        EXPECT_EQ(poll(&waited, 1, 0), 1);
        EXPECT_EQ(fota_client_broadcast_next(fd, &got), row.key == 0 ? int{FOTA_CLIENT_NOT_YET} : SUCCESS);
        EXPECT_EQ(poll(&waited, 1, 0), 1) << "took what comes after it as well";
        EXPECT_TRUE(row.key == 0 || (got.key == row.key && got.value == row.value)) << got.key << got.value;
        EXPECT_TRUE(row.key == 0 || strnlen(got.record.reason, 255) == (row.bytes == record ? 254 : 0));
        EXPECT_EQ(fota_client_broadcast_next(fd, &got), FOTA_CLIENT_NOT_YET);
        EXPECT_EQ(poll(&waited, 1, 0), 0);
    }
    std::filesystem::remove_all(bus);
    EXPECT_EQ(fota_client_broadcast_next(fd, &got), FOTA_CLIENT_NO_RESOURCES) << "the bus has gone";
    close(fd);
}

// Every call: where its argument goes, "M", or the number 77, which is the same bytes; and where in the
// answer the first byte of its output comes from.
TEST_F(Client, CallsSendAndBringWhatTheyAreToOrNothing) {
    constexpr int NONE = FOTA_PAYLOAD_SIZE - 1;
    static fota_payload out;
    static fota_device_info device = {};
    static fota_pkg_info info = {};
    static fota_history_rec* const rec = &out.record;
    static uint32_t* const value = &out.value;
    device.model[0] = info.agent_name[0] = 'M';
    using text = const char*;
    // clang-format off
    const struct {
        int event, in, out;  // offsets in the payload
        bool is_text;
        int (*call)(text);
    } rows[] = {
        {1, NONE, 0, false, [](text) { return fota_client_get_max_pkg_size(value, T); }},
        {2, 0, NONE, true, [](text t) { return fota_client_create_session_lock(t, T); }},
        {3, 0, NONE, true, [](text t) { return fota_client_clear_session_lock(t, T); }},
        {4, 0, 0, true, [](text t) { return fota_client_get_update_status(t, rec, T); }},
        {5, NONE, 0, false, [](text) { return fota_client_get_last_success_rec(rec, T); }},
        {6, NONE, 0, false, [](text) { return fota_client_get_update_check_time(out.text, T); }},
        {7, 0, NONE, true, [](text t) { return fota_client_set_update_check_time(t, T); }},
        {8, NONE, 0, false, [](text) { return fota_client_get_record_count(&out.record_count, T); }},
        {9, 0, 0, false, [](text) { return fota_client_get_record_by_index('M', rec, T); }},
        {10, 520, 0, false, [](text) { return fota_client_get_record_by_id('M', rec, T); }},
        {11, 0, 0, true, [](text t) { return fota_client_get_src_pkg_version(t, out.text, T); }},
        {12, 0, 0, true, [](text t) { return fota_client_get_tgt_pkg_version(t, out.text, T); }},
        {13, 0, NONE, true, [](text t) { return fota_client_abort_current_session(t, 401, "", T); }},
        {13, 256, NONE, false, [](text) { return fota_client_abort_current_session("a", 'M', "", T); }},
        {13, 260, NONE, true, [](text t) { return fota_client_abort_current_session("a", 401, t, T); }},
        {14, 2330, 0, true, [](text t) { return fota_client_get_current_sess_record(t, rec, T); }},
        {15, NONE, 0, false, [](text) { return fota_client_cfg_get_current_record(rec, T); }},
        {16, 263, NONE, true, [](text t) { return fota_client_cfg_save_new_record(t, "v", "f", T); }},
        {16, 540, NONE, true, [](text t) { return fota_client_cfg_save_new_record("d", t, "f", T); }},
        {16, 1050, NONE, true, [](text t) { return fota_client_cfg_save_new_record("d", "v", t, T); }},
        {17, 0, NONE, true, [](text t) { return fota_client_incr_install_defer_count(t, T); }},
        {18, 520, 0, false, [](text) { return fota_client_modify_record_by_id(rec, T); }},
        {19, 0, 0, true, [](text t) { return fota_client_validate_update_pkg(t, &info, value, T); }},
        {19, 2054, 0, false, [](text) { return fota_client_validate_update_pkg("p", &info, value, T); }},
        {20, 0, NONE, true, [](text t) { return fota_client_start_installation(t, 0, 0, T); }},
        {20, 256, NONE, false, [](text) { return fota_client_start_installation("a", 'M', 0, T); }},
        {20, 260, NONE, false, [](text) { return fota_client_start_installation("a", 0, 'M', T); }},
        {21, 0, 1276, true, [](text t) { return fota_client_sideload_start_installation(t, "p", value, T); }},
        {21, 255, 1276, true, [](text t) { return fota_client_sideload_start_installation("a", t, value, T); }},
        {22, 1275, NONE, false, [](text) { return fota_client_sua_update_start(&device, T); }},
        {23, NONE, 0, false, [](text) { return fota_client_get_revert_status(rec, T); }},
        {24, 0, NONE, true, [](text t) { return fota_client_sideload_prepare_package(t, T); }},
        {25, NONE, NONE, false, [](text) { return fota_client_factory_reset(T); }},
        {27, NONE, NONE, false, [](text) { return fota_client_decrypt_pkg(T); }},
        {28, 4, NONE, true, [](text t) { return fota_client_file_create(t, T); }},
        {28, 259, NONE, false, [](text) { return fota_client_file_write("p", "M", 1, T); }},
        {28, 4, 259, true, [](text t) { return fota_client_file_read_str(t, out.text, T); }},
        {28, 4, 259, true, [](text t) { return fota_client_file_read_uint32(t, value, T); }},
        {28, 4, NONE, true, [](text t) { return fota_client_file_remove(t, T); }},
        {29, NONE, 0, false, [](text) { return fota_client_get_sideload_max_pkg_size(value, T); }},
        {30, NONE, 0, false, [](text) { return fota_client_get_upgrade_status(reinterpret_cast<int32_t*>(value), T); }},
        {31, NONE, 0, false, [](text) { return fota_client_get_kernel_version(out.text, T); }},
    };
    // clang-format on
    start([this](fota_event_msg& msg) {
        msg.payload = {};
        if (setting < FOTA_PAYLOAD_SIZE) msg.payload.bytes[setting] = 'N';
        if (setting != 0xFFFFFFFF)
            msg.result = setting < FOTA_PAYLOAD_SIZE ? uint32_t{FOTA_RC_SUCCESS} : setting.load();
        answer(msg);
    });
    uint32_t file_code = 0;  // of the next row of event 28
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.event) + " at " + std::to_string(row.in));
        const auto call = [&row](text t) {
            out = {};
            rec->rec_id = 'M';
            return row.call(t);
        };
        setting = FOTA_RC_NO_MEMORY;
        EXPECT_EQ(call("M"), int{FOTA_RC_NO_MEMORY});
        EXPECT_EQ(out.bytes[0], 0) << "an output without success";
        setting = static_cast<uint32_t>(row.out);
        EXPECT_EQ(call("M"), SUCCESS);
        EXPECT_EQ(out.bytes[0], row.out == NONE ? 0 : 'N');
        const std::vector<fota_event_msg> before = sent();
        const fota_event_msg& msg = before.back();
        EXPECT_EQ(msg.event, row.event);
        EXPECT_STREQ(reinterpret_cast<text>(msg.payload.bytes) + row.in, row.in == NONE ? "" : "M");
        EXPECT_TRUE(row.event != FOTA_MSG_FILE_OPS || msg.payload.value == file_code++) << "sub-code";
        if (!row.is_text) continue;
        EXPECT_EQ(call(std::string(254, 'x').c_str()), SUCCESS);
        EXPECT_EQ(call(std::string(256, 'x').c_str()), FOTA_CLIENT_BAD_ARGUMENT);
        EXPECT_EQ(call(nullptr), FOTA_CLIENT_BAD_ARGUMENT);
        EXPECT_EQ(sent().size(), before.size() + 1);
    }

    EXPECT_EQ(fota_client_stop_in_recovery('M', T), SUCCESS);
    EXPECT_EQ(sent().back().event, FOTA_MSG_STOP_IN_RECOVERY);
    EXPECT_EQ(sent().back().payload.value, 1u);
    setting = 0xFFFFFFFF;
    EXPECT_EQ(fota_client_decrypt_pkg(T), FOTA_CLIENT_UNKNOWN_EVENT) << "a request that comes back untouched";
    setting = 0;

    const size_t before = sent().size();
    // clang-format off
    const int nulls[] = {
        fota_client_request(nullptr, T), fota_client_get_max_pkg_size(nullptr, T),
        fota_client_get_upgrade_status(nullptr, T), fota_client_get_record_count(nullptr, T),
        fota_client_get_kernel_version(nullptr, T), fota_client_get_revert_status(nullptr, T),
        fota_client_sua_update_start(nullptr, T), fota_client_modify_record_by_id(nullptr, T),
        fota_client_validate_update_pkg("p", nullptr, value, T), fota_client_validate_update_pkg("p", &info, nullptr, T),
        fota_client_file_read_str("p", nullptr, T), fota_client_file_read_uint32("p", nullptr, T),
        fota_client_file_write("p", nullptr, 1, T), fota_client_sideload_start_installation("a", "p", nullptr, T),
    };
    // clang-format on
    for (const int& result : nulls) EXPECT_EQ(result, FOTA_CLIENT_BAD_ARGUMENT) << &result - nulls;
    EXPECT_EQ(sent().size(), before);
    EXPECT_EQ(fota_client_file_write("p", nullptr, 0, T), SUCCESS);
}

// The daemon sends on what lies in its history, and a text there may fill its field.
TEST_F(Client, TextsThatComeBackEndInTheirField) {
    start([](fota_event_msg& msg) {
        memset(&msg.payload, 'x', sizeof msg.payload);
        succeed(msg);
    });
    fota_history_rec rec = {};
    ASSERT_EQ(fota_client_get_record_by_id(1, &rec, T), SUCCESS);
    fota_pkg_info& info = rec.pkg_info;
    for (const char* text : {rec.reason, rec.update_date, info.pkg_ver, info.pkg_name, info.pkg_description,
                             info.update_method, info.aux_text1, info.aux_text2, info.agent_name}) {
        EXPECT_EQ(strlen(text), 254u) << text - rec.reason;
    }
    EXPECT_EQ(strlen(info.manufacturer), 255u);
    fota_record_count count = {};
    ASSERT_EQ(fota_client_get_record_count(&count, T), SUCCESS);
    EXPECT_EQ(strnlen(count.list, sizeof count.list), 255u);
    char text[FOTA_TEXT_SIZE];
    for (const auto get : {fota_client_get_kernel_version, fota_client_get_update_check_time}) {
        memset(text, '!', sizeof text);
        ASSERT_EQ(get(text, T), SUCCESS);
        EXPECT_EQ(strnlen(text, sizeof text), 254u);
    }
    rec.reason[254] = 'x';
    EXPECT_EQ(fota_client_modify_record_by_id(&rec, T), FOTA_CLIENT_BAD_ARGUMENT);
}

}  // namespace
