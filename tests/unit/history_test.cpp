// The history file: slots, ids, what a user sees of it, and its bytes.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <numeric>

#include "history/history_slots.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

struct History : testing::Test {
    void SetUp() override {
        wipe_device();
        recording_platform_reset();
    }
};

using records = std::vector<fota_history_rec>;

// Records with the ids `first` to `last`, ordinary failed updates.
records id_range(uint32_t first, uint32_t last) {
    records list;
    for (uint32_t id = first; id <= last; ++id) list.push_back(make_record(id, FOTA_REC_UPDATE, 404));
    return list;
}

records with(records list, uint32_t id, uint32_t type, uint32_t status) {
    for (auto& record : list) {
        if (record.rec_id == id) record = make_record(id, type, status);
    }
    return list;
}

TEST_F(History, NewRecordReplacesTheRightOne) {
    records gap = id_range(1, 20);
    gap[5] = {};
    records no_12 = with(id_range(11, 31), 11, FOTA_REC_UPDATE, 200);
    no_12.erase(no_12.begin() + 1);
    records shuffled = with(id_range(11, 30), 11, FOTA_REC_FACTORY_CFG, 0);
    std::swap(shuffled[1], shuffled[17]);
    const struct {
        const char* name;
        records before;
        uint32_t id;
        int slot;
    } rows[] = {
        {"empty history", {}, 1, 0},
        {"empty slot before the oldest", gap, 21, 5},
        {"oldest is an ordinary failure", id_range(11, 30), 31, 0},
        {"only configuration record is spared", shuffled, 31, 17},
        {"only success is spared", with(id_range(11, 30), 11, FOTA_REC_UPDATE, 200), 31, 1},
        {"nothing follows the only success", no_12, 32, 0},
        {"the spared one's successor goes though it is the only success",
         with(with(id_range(11, 30), 11, FOTA_REC_FACTORY_CFG, 0), 12, FOTA_REC_UPDATE, 200), 31, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.before.empty()) {
            std::remove(FOTA_HISTORY_DB);
        } else {
            put_history(row.before);
        }
        EXPECT_EQ(allocate_new_record_id(), row.id);
        fota_history_rec record = make_record(row.id);
        memset(record.pkg_info.aux_text1, 'x', sizeof record.pkg_info.aux_text1);
        record.reserved1 = 0x01020304;
        ASSERT_EQ(add_record_to_db(&record), FOTA_RC_SUCCESS);
        records expected(20);
        std::copy(row.before.begin(), row.before.end(), expected.begin());
        expected[static_cast<size_t>(row.slot)] = record;
        const std::string content = get_file(FOTA_HISTORY_DB);
        ASSERT_EQ(content.size(), 56880u);
        EXPECT_EQ(memcmp(content.data(), expected.data(), content.size()), 0);
        EXPECT_FALSE(exists(FOTA_HISTORY_TMP));
    }
}

// Where a record goes, said in another way: by a list of the slots in order of age.
size_t expected_slot(const records& slots, uint32_t new_id) {
    std::vector<size_t> by_age;
    for (size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].rec_id == 0) return i;
        if (slots[i].rec_id < new_id) by_age.push_back(i);
    }
    std::ranges::stable_sort(by_age, {}, [&slots](size_t i) { return slots[i].rec_id; });
    const size_t oldest = by_age.empty() ? 0 : by_age[0];
    const uint32_t oldest_id = by_age.empty() ? new_id : slots[oldest].rec_id;
    const auto is_cfg = [](const fota_history_rec& r) { return r.rec_type == 1; };
    const auto is_success = [](const fota_history_rec& r) { return r.rec_type == 0 && r.status == 200; };
    const bool spared = (is_cfg(slots[oldest]) && std::ranges::count_if(slots, is_cfg) == 1) ||
                        (is_success(slots[oldest]) && std::ranges::count_if(slots, is_success) == 1);
    const auto next = std::ranges::find(slots, oldest_id + 1, &fota_history_rec::rec_id);
    return spared && next != slots.end() ? static_cast<size_t>(next - slots.begin()) : oldest;
}

TEST_F(History, RandomHistoriesTakeARecordWhereTheModelDoes) {
    unsigned seed = 0;
    std::mt19937 random = random_numbers(&seed);
    const auto pick = [&random](std::initializer_list<uint32_t> from) {
        return from.begin()[random() % from.size()];
    };
    for (int round = 0; round < 3000; ++round) {
        records slots(20);
        std::vector<uint32_t> ids(26);
        std::iota(ids.begin(), ids.end(), pick({1, 100, 4294967260}));
        std::ranges::shuffle(ids, random);
        for (size_t i = 0; i < slots.size(); ++i) {
            slots[i] = make_record(ids[i], pick({0, 0, 0, 0, 1, 2}), pick({404, 404, 404, 410, 200}));
        }
        if (random() % 4 == 0) slots[random() % slots.size()].rec_id = 0;
        const fota_history_rec record = make_record(ids[20 + random() % 6]);
        records expected = slots;
        expected[expected_slot(slots, record.rec_id)] = record;
        copy_record_into_list(&record, slots.data());
        ASSERT_EQ(memcmp(slots.data(), expected.data(), slots.size() * sizeof record), 0)
            << "round " << round << ": FOTA_SEED=" << seed << " history_test";
    }
}

TEST_F(History, FilesOfAnyLengthAreRead) {
    put_history(id_range(1, 20));
    const std::string whole = get_file(FOTA_HISTORY_DB);
    const struct {
        size_t length;
        uint32_t next_id;
    } rows[] = {{0, 1}, {10000, 5}, {56880, 21}};
    for (const auto& row : rows) {
        put_file(FOTA_HISTORY_DB, whole.substr(0, row.length));
        EXPECT_EQ(allocate_new_record_id(), row.next_id) << row.length;
    }
    // What lies beyond 20 records goes with the next write.
    put_file(FOTA_HISTORY_DB, whole + whole);
    EXPECT_EQ(copy_result_into_db(402, 0, 410, "why", 7), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file(FOTA_HISTORY_DB).size(), 56880u);
    EXPECT_STREQ(stored_record(7).reason, "why");
    EXPECT_EQ(stored_record(7).linux_pri_result, 410u);
}

TEST_F(History, NothingIsWrittenForAnUnknownId) {
    fota_history_rec record = make_record(9);
    EXPECT_EQ(find_record_by_id(9, &record), FOTA_RC_FILE_NOT_FOUND);
    EXPECT_EQ(get_record_by_index(&record, 0, 0, 0), FOTA_RC_FILE_NOT_FOUND);
    put_history({});
    EXPECT_EQ(get_record_by_index(&record, 0, 0, 0), FOTA_RC_FAILURE);
    put_history({make_record(3), make_record(9), make_record(4)});
    EXPECT_EQ(allocate_new_record_id(), 10u);
    record = make_record(8);
    const std::string before = get_file(FOTA_HISTORY_DB);
    EXPECT_EQ(update_existing_record_in_db(&record), FOTA_RC_RECORD_NOT_FOUND);
    EXPECT_EQ(copy_result_into_db(200, 0, 0, nullptr, 8), FOTA_RC_RECORD_NOT_FOUND);
    EXPECT_EQ(find_record_by_id(8, &record), FOTA_RC_RECORD_NOT_FOUND);
    EXPECT_EQ(get_file(FOTA_HISTORY_DB), before);
}

TEST_F(History, WhatCannotBeReadNowIsNotWrittenOver) {
    ASSERT_EQ(symlink("/proc/self/mem", FOTA_HISTORY_DB), 0);  // opens, and gives EIO
    const fota_history_rec record = make_record(4);
    EXPECT_EQ(allocate_new_record_id(), 0u) << "any id may be in there";
    EXPECT_EQ(add_record_to_db(&record), FOTA_RC_FILE_NOT_FOUND);
    EXPECT_TRUE(std::filesystem::is_symlink(FOTA_HISTORY_DB));
}

TEST_F(History, AFailedWriteKeepsTheOldFile) {
    put_history(id_range(1, 3));
    const std::string before = get_file(FOTA_HISTORY_DB);
    const fota_history_rec record = make_record(4);
    std::filesystem::create_directories(FOTA_HISTORY_TMP);
    EXPECT_EQ(add_record_to_db(&record), FOTA_RC_FILE_CREATE_FAILED);
    EXPECT_EQ(get_file(FOTA_HISTORY_DB), before);
    std::filesystem::remove(FOTA_HISTORY_TMP);

    // rename() cannot replace a folder.
    std::filesystem::remove(FOTA_HISTORY_DB);
    std::filesystem::create_directories(FOTA_HISTORY_DB);
    EXPECT_EQ(add_record_to_db(&record), FOTA_RC_FILE_WRITE_FAILED);
    EXPECT_TRUE(exists(FOTA_HISTORY_TMP));
}

TEST_F(History, ListHidesFactoryAndPendingRecords) {
    fota_record_count count;
    EXPECT_EQ(get_record_count(&count), FOTA_RC_FILE_NOT_FOUND);
    EXPECT_EQ(count.count, 0u);

    put_history({make_record(7), make_record(8), make_record(3), make_record(4)});
    ASSERT_EQ(get_record_count(&count), FOTA_RC_SUCCESS);
    EXPECT_EQ(count.count, 4u);
    EXPECT_STREQ(count.list, "7,8,3,4,");

    put_history({make_record(1, FOTA_REC_FACTORY_CFG), make_record(2), make_record(3), make_record(4)});
    put_file(FOTA_FACTORY_CFG_REC, "1");
    put_file(FOTA_TRACKING, "4");
    ASSERT_EQ(get_record_count(&count), FOTA_RC_SUCCESS);
    EXPECT_EQ(count.count, 2u);
    EXPECT_STREQ(count.list, "2,3,");
}

TEST_F(History, PositionsMapToRecords) {
    const struct {
        const char* name;
        std::vector<uint32_t> ids;
        uint32_t cfg, pending, index, expected;  // expected 0: not found
    } rows[] = {
        {"after the factory record", {1, 2, 3, 4}, 1, 4, 0, 2},
        {"next", {1, 2, 3, 4}, 1, 4, 1, 3},
        {"pending at the end is hidden", {1, 2, 3, 4}, 1, 4, 2, 0},
        {"factory record in the middle does not shift", {1, 2, 3, 4, 5}, 3, 0, 2, 0},
        {"so the next position is the next id", {1, 2, 3, 4, 5}, 3, 0, 3, 4},
        {"and the last lies past the count", {1, 2, 3, 4, 5}, 3, 0, 4, 5},
        {"pending before the target shifts it", {1, 2, 3, 4}, 0, 2, 1, 3},
        {"a shift after the target's slot comes too late", {3, 1, 2}, 0, 2, 2, 3},
        {"a raised target is only found later", {3, 2, 1}, 0, 2, 1, 0},
        {"a gap in the ids", {5, 9}, 0, 0, 1, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        records list;
        for (const uint32_t id : row.ids) list.push_back(make_record(id));
        put_history(list);
        fota_history_rec found = {};
        const fota_rc rc = get_record_by_index(&found, row.index, row.cfg, row.pending);
        EXPECT_EQ(rc, row.expected == 0 ? FOTA_RC_RECORD_NOT_FOUND : FOTA_RC_SUCCESS);
        EXPECT_EQ(found.rec_id, row.expected);
    }
}

TEST_F(History, NewestOfAKind) {
    fota_history_rec found = {};
    put_history({make_record(5)});
    EXPECT_EQ(get_last_success_record(&found), FOTA_RC_RECORD_NOT_FOUND);
    EXPECT_EQ(get_latest_cfg_record(&found), FOTA_RC_RECORD_NOT_FOUND);
    put_history({make_record(4, 0, 200), make_record(30, 1), make_record(22, 1), make_record(21, 2, 200),
                 make_record(9, 0, 200)});
    EXPECT_EQ(get_last_success_record(&found), FOTA_RC_SUCCESS);
    EXPECT_EQ(found.rec_id, 21u);
    EXPECT_EQ(get_latest_cfg_record(&found), FOTA_RC_SUCCESS);
    EXPECT_EQ(found.rec_id, 30u);
}

// Made from named fields, a history file and requests have the bytes that builds for other processors make.
// The sum is what the x86-64 build gives: `sha256sum /opt/bytes`.
TEST_F(History, BytesAreTheSameOnEveryProcessor) {
    int n = 0;
    const auto fill = [&n](auto& field) {
        ++n;
        if constexpr (std::is_array_v<std::remove_reference_t<decltype(field)>>) {
            memset(field, n, sizeof field - 1);
        } else {
            field = static_cast<std::remove_reference_t<decltype(field)>>(n * 0x010203);
        }
    };
    const auto mark = [&fill](auto&... fields) { (fill(fields), ...); };
    fota_history_rec r = {};
    fota_pkg_info& i = r.pkg_info;
    for (r.rec_id = 1; r.rec_id <= 20; ++r.rec_id) {
        mark(r.rec_type, r.status, r.reason, r.update_date, r.install_defer_count, r.reserved1,
             r.linux_pri_result, r.modem_pri_result, r.reserved2, i.pkg_info_word, i.pkg_size, i.pkg_ver,
             i.pkg_name, i.pkg_description, i.update_method, i.manufacturer, i.est_update_time, i.aux_text1,
             i.aux_text2, i.agent_name);
        ASSERT_EQ(add_record_to_db(&r), FOTA_RC_SUCCESS);
    }
    std::string bytes = get_file(FOTA_HISTORY_DB);
    fota_event_msg msg;
    fota_payload& p = msg.payload;
    const auto add = [&](auto&... fields) {
        msg = {};
        mark(msg.routing_header, msg.result, msg.event, msg.reserved, fields...);
        bytes.append(reinterpret_cast<const char*>(&msg), sizeof msg);
    };
    add(p.file_ops.fops_code, p.file_ops.fops_path, p.file_ops.fops_data, p.file_ops.fops_data_len);
    add(p.validate.pkg_path, p.validate.pkg_info.agent_name);
    add(p.install.agent_id, p.install.boot_preference, p.install.wait_secs);
    add(p.abort.agent_id, p.abort.status, p.abort.reason);
    add(p.sideload.agent_id, p.sideload.pkg_path, p.sideload.est_update_time);
    put_file("/opt/bytes", bytes);
    sh("echo 431ad8584e89abb75f0f8606a455c64c9a3b18e43f15e204c27a5611ddb3e9a9  /opt/bytes | sha256sum -c");
}

}  // namespace
