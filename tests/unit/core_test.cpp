// Configuration, the message bus, the log, and which requests are dropped.
#include <cstring>
#include <filesystem>

#include "core/config.h"
#include "core/daemon_state.h"
#include "core/msgbus_client.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

using Core = CleanDevice;

TEST_F(Core, ConfigurationAndItsDefaults) {
    ASSERT_EQ(fota_init_config(), FOTA_RC_SUCCESS);
    EXPECT_EQ(fota_config.maximum_pkg_size, 36700160u);
    EXPECT_EQ(fota_config.sideload_maximum_pkg_size, 36700160u);
    EXPECT_EQ(fota_get_pre_install_wait_secs(), 5u);
    EXPECT_STREQ(fota_get_platform_prefix(), "");
    EXPECT_EQ(fota_config.no_modem_version, 0u);

    recording_platform().xml_texts = {{"/Config/MaxPkgSizeAllowed", "1000"},
                                      {"/Config/SideloadMaxPkgSizeAllowed", "2000"},
                                      {"/Config/preInstallWaitSecs", "0"},
                                      {"/Config/version/platformPrefix", std::string(300, 'p')},
                                      {"/Config/version/noModemVersion", "1"}};
    ASSERT_EQ(fota_init_config(), FOTA_RC_SUCCESS);
    EXPECT_EQ(fota_config.maximum_pkg_size, 1000u);
    EXPECT_EQ(fota_config.sideload_maximum_pkg_size, 2000u);
    EXPECT_EQ(fota_get_pre_install_wait_secs(), 0u);
    EXPECT_EQ(fota_get_platform_prefix(), std::string(255, 'p'));
    EXPECT_EQ(fota_config.no_modem_version, 1u);

    for (auto& [path, text] : recording_platform().xml_texts) text = "4294967295";
    ASSERT_EQ(fota_init_config(), FOTA_RC_SUCCESS);
    EXPECT_EQ(fota_config.maximum_pkg_size, 2147483647u);
    EXPECT_EQ(fota_config.sideload_maximum_pkg_size, 2147483647u);
    EXPECT_EQ(fota_get_pre_install_wait_secs(), 2147483647u);
}

TEST_F(Core, FeatureGate) {
    auto& platform = recording_platform();
    platform.reads_before_ready = 2;
    EXPECT_EQ(fota_init_settings(), FOTA_RC_SUCCESS);
    EXPECT_TRUE(logged("retries left 59"));
    EXPECT_TRUE(logged("retries left 58"));
    EXPECT_FALSE(logged("retries left 57"));
    EXPECT_EQ(fota_features.power_saving, 1u);

    platform.reads_before_ready = 61;
    platform.waits = 0;
    EXPECT_EQ(fota_init_settings(), FOTA_RC_FAILURE);
    EXPECT_EQ(platform.waits, 60);
}

TEST_F(Core, ABusThatCannotBeAttachedToIsAFailure) {
    for (const char* failing : {"MsgBus_Create", "MsgBus_Connect", "MsgBus_SetCallback"}) {
        recording_platform_reset();
        recording_platform().results[failing] = 1;
        EXPECT_EQ(fota_msgbus_init(), FOTA_RC_FAILURE) << failing;
    }
}

TEST_F(Core, BroadcastsAreKeptEvenWhenTheBusFails) {
    auto& platform = recording_platform();
    platform.results = {{"MsgBusSetInt64", -1}, {"MsgBusSetBinary", -1}};
    fota_broadcast_upgrade_status(-1);
    EXPECT_TRUE(called("MsgBusSetInt64 fota.upgrade_status -1"));
    EXPECT_EQ(fota_get_last_upgrade_status(), -1);
    // A record whose agent never ends is announced whole and logged within its field.
    fota_history_rec record = make_record(1);
    memset(record.pkg_info.agent_name, 'n', sizeof record.pkg_info.agent_name);
    memset(record.pkg_info.alignment, 'm', sizeof record.pkg_info.alignment);
    fota_broadcast_update_status(&record);
    EXPECT_TRUE(logged("agent=[" + std::string(255, 'n') + "]"));
    EXPECT_TRUE(logged("MsgBusSetBinary(FOTA_UPDATE_STATUS_MESSAGE_BUS_CHANNEL,..) failed, rc=[-1]"));
}

TEST_F(Core, DispatcherDropsAndAnswers) {
    const struct {
        const char* name;
        int32_t event;
        uint32_t value;
        int32_t last_status;
        bool sideload, full_image;
        fota_rc result;
        uint32_t value_after;
    } rows[] = {
        {"idle", 30, 9, 0, false, false, FOTA_RC_SUCCESS, 0},
        {"started", 30, 9, 1, false, true, FOTA_RC_SUCCESS, 1},
        {"resetting", 30, 9, 2, false, true, FOTA_RC_SUCCESS, 2},
        {"full image found at start", 30, 9, 0, false, true, FOTA_RC_SUCCESS, 1},
        {"status during a side-load", 30, 9, -1, true, false, FOTA_RC_SUCCESS, 0xFFFFFFFF},
        {"side-load drops", 27, 9, 0, true, false, FOTA_RC_SIDELOAD_IN_PROGRESS, 9},
        {"side-load first", 99, 9, 0, true, true, FOTA_RC_SIDELOAD_IN_PROGRESS, 9},
        {"full image drops", 2, 9, 0, false, true, FOTA_RC_FULL_FOTA_IN_PROGRESS, 9},
        {"unknown", 32, 9, 0, false, false, 0x5EED, 9},
        {"zero", 0, 9, 0, false, false, 0x5EED, 9},
        {"negative", -1, 9, 0, false, false, 0x5EED, 9},
        {"decrypt", 27, 9, 0, false, false, FOTA_RC_SUCCESS, 9},
        {"no recovery mode", 26, 0, 0, false, false, FOTA_RC_SUCCESS, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        if (row.sideload) put_file(FOTA_SIDELOAD_COOKIE, "");
        if (row.full_image) put_file(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL, "");
        fota_set_last_upgrade_status(row.last_status);
        fota_event_msg msg = make_request(row.event);
        msg.payload.value = row.value;
        memset(msg.routing_header, 0x5A, sizeof msg.routing_header);
        msg.reserved = 0xA5A5A5A5;
        fota_event_msg expected = msg;
        expected.result = row.result;
        expected.payload.value = row.value_after;
        msg = serve(msg);
        EXPECT_EQ(memcmp(&msg, &expected, sizeof msg), 0) << "nothing else of the record changes";
    }
    // A folder is no flag.
    std::filesystem::create_directories(FOTA_SIDELOAD_COOKIE);
    EXPECT_EQ(serve(make_request(FOTA_MSG_DECRYPT_PKG)).result, FOTA_RC_SUCCESS);
}

}  // namespace
