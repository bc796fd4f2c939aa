// The port that this build names, on a device as it leaves the factory: what the headers in platform/include
// promise.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>
#include <thread>
#include <tuple>

#include "dsm.h"
#include "fota/fota_client.h"
#include "modem2.h"
#include "msgbus.h"
#include "msgq.h"
#include "powersave.h"
#include "settings.h"
#include "support/device_files.h"
#include "tools/play/device.h"
#include "vexa_dbg.h"
#include "watchdog.h"
#include "xmldata.h"

namespace fs = std::filesystem;

namespace {

constexpr int SIZE = FOTA_REQUEST_SIZE, DEPTH = FOTA_REQUEST_QUEUE_DEPTH;
constexpr char QUEUE[] = "/port", REPLIES[] = "/replies", SMALL[] = "/small";

mqd_t make_queue(const char* name, long size, long depth) {
    mq_attr form = {0, depth, size, 0, {}};
    return mq_open(name, O_CREAT | O_RDWR | O_NONBLOCK | O_CLOEXEC, 0600, &form);
}

void in_three_threads(void (*work)(char mark)) {
    std::thread threads[3];
    for (int i = 0; i < 3; ++i) threads[i] = std::thread(work, static_cast<char>('a' + i));
    for (std::thread& each : threads) each.join();
}

// Whatever a port opens stays out of the programs that the daemon runs, and signals are the daemon's.
struct Port : testing::Test {
    MsgBusHandle* bus = nullptr;

    void SetUp() override {
        device_seed("");
        close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);  // what this program was started with
        for (const char* name : {QUEUE, REPLIES, SMALL}) mq_unlink(name);
        vexa_dbg_start();
        ASSERT_NE(bus = MsgBus_Create("PORT"), nullptr);
        ASSERT_EQ(MsgBus_Connect(bus), 0);
        ASSERT_EQ(MsgBus_SetCallback(bus, [](MsgBusHandle*, const MsgBusEvent*) {}), 0);
    }

    void TearDown() override {
        for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
            const int number = std::stoi(fd.path().filename());
            if (number > STDERR_FILENO && fcntl(number, F_GETFD) == 0)
                ADD_FAILURE() << fs::read_symlink(fd.path());
        }
        for (const auto& task : fs::directory_iterator("/proc/self/task")) {
            const std::string status = get_file(task.path() / "status");
            const auto blocked = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
            EXPECT_EQ((blocked & 1U << (SIGTERM - 1)) == 0,
                      task.path().filename() == fs::read_symlink("/proc/self"));
        }
        MsgBus_Disconnect(bus);
        MsgBus_Release(bus);
        vexa_dbg_stop();
    }
};

TEST_F(Port, QueueIsKeptWithWhatWaitsWhenItIsOfTheForm) {
    for (const auto& [size, depth, kept] : {std::tuple{SIZE, DEPTH, 5}, {SIZE, 2, -1}, {64, DEPTH, -1}}) {
        const mqd_t found = make_queue(QUEUE, size, depth);
        ASSERT_EQ(mq_send(found, "waits", 5, 0), 0);
        mq_close(found);
        const int queue = msgq_create(QUEUE, SIZE, DEPTH);
        struct stat info = {};
        mq_attr form = {};
        ASSERT_TRUE(fstat(queue, &info) == 0 && mq_getattr(queue, &form) == 0);
        EXPECT_TRUE((info.st_mode & 07777) == 0660 && form.mq_msgsize == SIZE && form.mq_maxmsg == DEPTH);
        char message[SIZE];
        EXPECT_EQ(msgq_receive(queue, message, SIZE, 0), kept);
        EXPECT_TRUE(msgq_receive(queue, message, SIZE, 0) == -1 && errno == EAGAIN);
        mq_close(queue);
        mq_unlink(QUEUE);
    }
}

TEST_F(Port, ResponseReachesItsRequesterAndNobodyElse) {
    const int queue = msgq_create(QUEUE, SIZE, DEPTH);
    const mqd_t replies = make_queue(REPLIES, SIZE, 1), small = make_queue(SMALL, 100, 1);
    char message[SIZE] = "";
    const auto answer = [&](std::string_view name) {
        memset(message, 0, 65);
        memcpy(message, name.data(), name.size());
        message[SIZE - 1] = 'z';
        return msgq_resp_handler(message, SIZE);
    };
    EXPECT_EQ(answer(REPLIES), 0);
    for (const char* name :
         {"", "/", "replies", "/a/b", "/none", "/no\x1bne", QUEUE, SMALL, REPLIES /* full */})
        EXPECT_EQ(answer(name), -1) << name;
    EXPECT_EQ(answer("/" + std::string(63, 'a')), -1) << "no end";
    EXPECT_EQ(msgq_resp_handler(REPLIES, sizeof REPLIES), -1) << "no header";
    const std::string log = get_file(DEVICE_DEBUG_LOG);
    EXPECT_TRUE(std::ranges::count(log, '\n') >= 11 && log.find('\x1b') == log.npos) << log;
    EXPECT_EQ(msgq_receive(queue, message, SIZE, 0), -1);
    EXPECT_EQ(mq_receive(replies, message, SIZE, nullptr), SIZE);
    EXPECT_TRUE(strcmp(message, REPLIES) == 0 && message[SIZE - 1] == 'z');
    for (const int each : {queue, replies, small}) mq_close(each);
}

TEST_F(Port, BusHasTheLastValueAndNeverAMixture) {
    MsgBusValue value = {};
    EXPECT_EQ(MsgBusGet("settings.ready", &value), 0);
    EXPECT_NE(value.value, 0u);
    EXPECT_NE(MsgBusGet("port.none", &value), 0);
    EXPECT_EQ(value.value, 0u);
    EXPECT_EQ(MsgBusSetInt64("port.number", 0x100000002), 0);
    EXPECT_EQ(MsgBusGet("port.number", &value), 0);
    EXPECT_EQ(value.value, 2u);
    EXPECT_NE(MsgBusSetBinary("port.number", "", -1), 0);

    const int watch = fota_client_broadcasts_open();
    in_three_threads([](char mark) {
        fota_history_rec record;
        memset(&record, mark, sizeof record);
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(MsgBusSetBinary("fota.update_status", &record, sizeof record), 0);
    });
    size_t heard = 0;
    for (fota_broadcast told; fota_client_broadcast_next(watch, &told) == FOTA_RC_SUCCESS; ++heard) {
        const auto* const bytes = reinterpret_cast<const char*>(&told.record);
        EXPECT_EQ(std::set<char>(bytes, bytes + sizeof told.record), (std::set<char>{0, bytes[0]}))
            << "0 ends texts";
    }
    EXPECT_GT(heard, 0u);
    close(watch);
}

TEST_F(Port, SettingsAreThere) {
    settings_features features = {};
    EXPECT_EQ(settings_get_features(&features), SETTINGS_SUCCESS);
    EXPECT_TRUE(features.fota_enabled != 0 && features.power_saving != 0);
}

TEST_F(Port, ConfigurationIsReadAsTheHeaderSays) {
    const char* const file = "/opt/port.xml";
    EXPECT_NE(xmldata_initialize(file, file), 0);
    put_file(file, "<C><a> 12\n</a><b>0x10</b><c>5000000000</c><d>-1</d><e>1x</e><f> two words </f><f/></C>");
    ASSERT_EQ(xmldata_initialize(file, file), 0);
    for (const auto& [key, expected] : {std::pair{"/C/a", 12U},
                                        {"/C/b", 16U},
                                        {"/C/c", UINT32_MAX},
                                        {"/C/d", 7U},
                                        {"/C/e", 7U},
                                        {"/C/none", 7U},
                                        {"", 7U}}) {
        uint32_t number = 1;
        EXPECT_EQ(xmldata_getuint32_default(key, &number, 7) == 0, expected != 7) << key;
        EXPECT_EQ(number, expected) << key;
    }
    for (const auto& [key, size, expected] : {std::tuple{"/C/f", 20, "two words"},
                                              {"/C/f", 3, "two"},
                                              {"/C/none", 20, "default"},
                                              {"/C/none", 3, "def"}}) {
        char text[21];
        memset(text, 'z', sizeof text);
        EXPECT_EQ(xmldata_getstring_default(key, text, size, "default") == 0, key[3] == 'f') << key;
        EXPECT_STREQ(text, expected);
        EXPECT_TRUE(size == 20 || text[size + 1] == 'z');
    }
    int count = 0;
    EXPECT_EQ(xmldata_getcount("/C/f", &count), 0);
    EXPECT_EQ(count, 2);
    xmldata_shutdown();
}

TEST_F(Port, LogKeepsLinesApartAndErrno) {
    vexa_dbg_stop();
    vexa_dbg_log("PORT", 3, "too early");
    vexa_dbg_start();
    in_three_threads([](char mark) {
        vexa_dbg_context("EVENT", "agent", 1);
        for (int i = 0; i < 50; ++i) {
            errno = ENOTTY;
            vexa_dbg_log("PORT", 7, "<%s>%s", std::string(4000, mark).c_str(), i % 2 == 0 ? "\n" : "");
            vexa_dbg_syslog(138, "%s", "");
            EXPECT_EQ(errno, ENOTTY);
        }
    });
    std::istringstream log(get_file(DEVICE_DEBUG_LOG));
    int lines = 0;
    for (std::string line; std::getline(log, line); ++lines) {
        const size_t start = line.find('<');
        ASSERT_NE(start, std::string::npos) << line.substr(0, 100);
        EXPECT_EQ(line.substr(start), "<" + std::string(4000, line[start + 1]) + ">");
    }
    EXPECT_EQ(lines, 150);
    for (int level = -1; level < 100; ++level) EXPECT_NE(vexa_dbg_get_level_name(level), nullptr);
}

// A fault may cost two seconds, and a machine be busy; what waits for ever does not end in four.
TEST_F(Port, DeviceIsAskedWithoutWaiting) {
    const std::tuple<const char*, int, int (*)()> rows[] = {
        {"register", 0, [] { return watchdog_application_register("port", 1); }},
        {"alive", 0, [] { return watchdog_application_send_keep_alive("port"); }},
        {"withdraw", 0, [] { return watchdog_application_register("port", 0); }},
        {"not held", POWERSAVE_SUCCESS, [] { return powersave_wakelock_release("port"); }},
        {"hold", POWERSAVE_SUCCESS, [] { return powersave_wakelock_acquire("port"); }},
        {"hold again", POWERSAVE_SUCCESS, [] { return powersave_wakelock_acquire("port"); }},
        {"modem", 0,
         [] {
             modem2_info info;
             memset(&info, 'z', sizeof info);
             const int result = modem2_get_info(&info);
             EXPECT_LT(strnlen(info.fw_version, sizeof info.fw_version), sizeof info.fw_version);
             return result;
         }},
        {"installer", DSM_SUCCESS, [] { return dsm_set_persistent_mode(5); }},
        {"reset", DSM_SUCCESS, [] { return dsm_reset_device(1); }},
        {"give back", POWERSAVE_SUCCESS, [] { return powersave_wakelock_release("port"); }},
    };
    for (const auto& [name, expected, call] : rows) {
        const auto start = std::chrono::steady_clock::now();
        int result = -1;
        std::thread([&, asked = call] { result = asked(); }).join();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << name;
        EXPECT_EQ(result, expected) << name;
    }
}

}  // namespace
