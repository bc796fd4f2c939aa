// The history file: slots, ids, what a user sees of it, and its bytes.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <tuple>

#include "core/dispatcher.h"
#include "history/history_slots.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

using History = CleanDevice;

using records = std::vector<fota_history_rec>;

// Records with the ids `first` to `last`, ordinary failed updates.
records id_range(uint32_t first, uint32_t last) {
    records list;
    for (uint32_t id = first; id <= last; ++id) list.push_back(make_record(id, FOTA_REC_UPDATE, 404));
    return list;
}

TEST_F(History, ARecordIsStoredWholeAndNothingElse) {
    for (const uint32_t count : {0, 20}) {  // an empty history, and a full one, whose oldest goes
        if (count > 0) put_history(id_range(11, 30));
        fota_history_rec record = make_record(count > 0 ? 31 : 1);
        EXPECT_EQ(allocate_new_record_id(), record.rec_id);
        memset(record.pkg_info.aux_text1, 'x', sizeof record.pkg_info.aux_text1);
        record.reserved1 = 0x01020304;
        ASSERT_EQ(add_record_to_db(&record), FOTA_RC_SUCCESS);
        records expected = count > 0 ? id_range(11, 30) : records(20);
        expected[0] = record;
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

TEST_F(History, NothingIsWrittenForAnUnknownId) {
    fota_history_rec record = make_record(9);
    EXPECT_EQ(find_record_by_id(9, &record), FOTA_RC_FILE_NOT_FOUND);
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

TEST_F(History, ListHidesFactoryAndPendingRecords) {
    fota_record_count count;
    put_history({make_record(1, FOTA_REC_FACTORY_CFG), make_record(3), make_record(2), make_record(4)});
    put_file(FOTA_FACTORY_CFG_REC, "1");
    put_file(FOTA_TRACKING, "4");
    ASSERT_EQ(get_record_count(&count), FOTA_RC_SUCCESS);
    EXPECT_EQ(count.count, 2u);
    EXPECT_STREQ(count.list, "3,2,");
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

// How many bytes this process has read so far.
uint64_t bytes_read() {
    const std::string io = get_file("/proc/self/io");
    return std::stoull(io.substr(io.find(' ')));
}

TEST_F(History, ARequestThatChangesItReadsItOnce) {
    fota_history_rec change = make_record(2);
    strcpy(change.update_date, "d");
    strcpy(change.pkg_info.pkg_ver, "v");
    strcpy(change.pkg_info.pkg_description, "fw");
    strcpy(change.pkg_info.agent_name, "agent-a");
    for (const int32_t event :
         {FOTA_MSG_MODIFY_RECORD_BY_ID, FOTA_MSG_INCR_INSTALL_DEFER_COUNT, FOTA_MSG_CFG_SAVE_NEW_RECORD}) {
        put_history(id_range(1, 20));
        put_file(FOTA_SESSION_LOCK, "agent-a");
        put_file(FOTA_TRACKING, "2");
        const std::string before = get_file(FOTA_HISTORY_DB);
        fota_event_msg msg = make_request(event, "agent-a");
        if (event != FOTA_MSG_INCR_INSTALL_DEFER_COUNT) msg.payload.record = change;
        const uint64_t read_before = bytes_read();
        fota_handle_event_message(&msg);
        const uint64_t read = bytes_read() - read_before;
        EXPECT_EQ(msg.result, FOTA_RC_SUCCESS) << event;
        EXPECT_NE(get_file(FOTA_HISTORY_DB), before) << event;
        EXPECT_LT(read, before.size() * 3 / 2) << event;
    }
}

}  // namespace
