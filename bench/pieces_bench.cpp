// The pieces of the daemon that its paths spend their time in, one by one, in the sandbox.
#include <benchmark/benchmark.h>
#include <mqueue.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "common/state_files.h"
#include "core/log.h"
#include "fota/request.h"
#include "history/history_db.h"
#include "msgq.h"
#include "package/checksum_list.h"
#include "package/crypto.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"
#include "vexa_dbg.h"

namespace {

constexpr char ENCRYPTED[] = "/opt/bench/pkg_details.zip.enc";
constexpr char SIGNED[] = "/opt/bench/signed";
constexpr char DETAILS[] = "/opt/bench/details.zip";
constexpr int64_t CONTENT_BYTES = 8 << 20;

void count_content(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * CONTENT_BYTES);
}

void decrypting(benchmark::State& state) {
    for (auto _ : state) {
        if (decrypt_file(FOTA_DEVICE_KEY, ENCRYPTED, SIGNED) != 0) state.SkipWithError("refused");
    }
    count_content(state);
}

void verifying(benchmark::State& state) {
    for (auto _ : state) {
        if (verify_signature(FOTA_BUILD_CERT, SIGNED, DETAILS) != 0) state.SkipWithError("refused");
    }
    count_content(state);
}

void digesting(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(verify_file_md5("/opt/bench/content/image", ""));
    count_content(state);
}

void reading_history(benchmark::State& state) {
    for (auto _ : state) {
        history_buffer slots;
        if (read_full_db(&slots) != FOTA_RC_SUCCESS) state.SkipWithError("not read");
    }
}

void writing_history(benchmark::State& state) {
    const history_buffer slots(
        static_cast<fota_history_rec*>(calloc(FOTA_HISTORY_SLOTS, sizeof(fota_history_rec))));
    for (auto _ : state) {
        if (write_to_db(slots) != FOTA_RC_SUCCESS) state.SkipWithError("not written");
    }
}

void logging_a_line(benchmark::State& state) {
    for (auto _ : state) LOG_NOTICE("complete[%s]\n", FOTA_DATA_DIR);
}

void answering(benchmark::State& state) {
    constexpr char NAME[] = "/bench_answers";
    mq_attr form = {};
    form.mq_maxmsg = 1;
    form.mq_msgsize = FOTA_REQUEST_SIZE;
    const mqd_t queue = mq_open(NAME, O_RDWR | O_CREAT, 0600, &form);
    fota_event_msg msg = {};
    strcpy(reinterpret_cast<char*>(msg.routing_header), NAME);
    for (auto _ : state) {
        const bool sent = msgq_resp_handler(&msg, sizeof msg) == 0;
        if (!sent || mq_receive(queue, reinterpret_cast<char*>(&msg), sizeof msg, nullptr) < 0)
            state.SkipWithError("not sent");
    }
    mq_close(queue);
}

BENCHMARK(decrypting)->Unit(benchmark::kMillisecond);
BENCHMARK(verifying)->Unit(benchmark::kMillisecond);
BENCHMARK(digesting)->Unit(benchmark::kMillisecond);
BENCHMARK(writing_history)->Unit(benchmark::kMicrosecond);
BENCHMARK(reading_history)->Unit(benchmark::kMicrosecond);
BENCHMARK(logging_a_line)->Unit(benchmark::kMicrosecond);
BENCHMARK(answering)->Unit(benchmark::kMicrosecond);

void make_package() {
    const int status = system(
        "set -e; mkdir -p /opt/bench/content /opt/qast/data/fota /opt/qast/etc/fota; cd /opt/bench; "
        "head -c 8M /dev/urandom >content/image; fotapkg keys keys >/dev/null; cp keys/* /opt/qast/etc/fota; "
        "fotapkg package --content content --keys keys --source 1 --target 2 --description bench -o p.zip "
        ">/dev/null; unzip -qo p.zip");
    if (status != 0) throw std::runtime_error("cannot make a package");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string folder = sandbox_program_folder();
    setenv("PATH", (folder + ":" + std::getenv("PATH")).c_str(), 1);
    sandbox_enter({{folder}, {}, {}});
    try {
        device_seed("");
        make_package();
    } catch (const std::exception& error) {
        fprintf(stderr, "bench: %s\n", error.what());
        return 1;
    }
    vexa_dbg_start();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
