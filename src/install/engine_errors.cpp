#include "install/engine_errors.h"

#include "common/text.h"

namespace {

// clang-format off
constexpr engine_error ENGINE_ERRORS[] = {
    {0x80000002, 410, "Bad parameters"},
    {0x8000000C, 410, "Package too long"},
    {0x8000000D, 402, "Package corrupt"},
    {0x8000000E, 402, "Package source corrupt"},
    {0x8000001E, 502, "Not enough RAM for update"},
    {0x8000001F, 409, "Bad RAM"},
    {0x80000024, 502, "Malloc failed"},
    {0x80000021, 410, "Write error"},
    {0x80000022, 410, "Erase error"},
    {0x80000023, 402, "Read error"},
    {0x8000002B, 409, "Invalid support function"},
    {0x8000002C, 410, "Buffers not aligned"},
    {0x8000002D, 410, "Start addr not aligned"},
    {0x800000CD, 402, "File open error for read"},
    {0x800000CE, 402, "File open error for write"},
    {0x800000CF, 402, "No file for delete"},
    {0x800000D0, 402, "File Delete failed"},
    {0x800000D1, 402, "File resize failed"},
    {0x800000D2, 402, "File size read failed"},
    {0x800000D3, 402, "File close failed"},
    {0x800000D4, 402, "Symbolic link create failed"},
    {0x800000D5, 402, "Directory create failed"},
    {0x8000012D, 402, "Invalid operation"},
    {0x8000012E, 402, "Unsupported compression"},
    {0x8000012F, 402, "No reverse in delta"},
    {0x80000130, 402, "No. of blocks less than in delta"},
    {0x80000131, 402, "Sector size mismatch"},
    {0x80000132, 402, "Reverse update not supported"},
    {0x80000133, 408, "IFS compression not supported"},
    {0x80000134, 408, "IFS not supported"},
    {0x80000136, 403, "Error in scout only verify"},
    {0x80000137, 502, "Not enough RAM for operation 2"},
    {0x80000138, 402, "Delta file too long"},
    {0x80000139, 402, "Error in signature"},
    {0x8000013A, 403, "No. of fragments mismatch"},
    {0x8000013B, 410, "No. of BCK sectors too big"},
    {0x8000013C, 402, "Delta file is corrupt"},
    {0x8000013E, 403, "Source signature mismatch"},
    {0x8000013F, 403, "Target signature mismatch"},
    {0x80000140, 402, "Invalid backup"},
    {0x80000141, 402, "Update agent version mismatch"},
    {0x80000142, 403, "Version mismatch during scout"},
    {0x80000143, 402, "Partition name not found"},
    {0x80000144, 502, "No space left"},
    {0x800100F4, 408, "Read/write delta not supported"},
    {0x800100F5, 408, "Image delta not supported"},
    {0x80010025, 402, "Invalid DP header"},
    {0x80010026, 402, "Invalid DP"},
    {0x8001002A, 408, "Unsupported DP version"},
    {0x8001006C, 403, "Invalid component ordinal"},
    {0x80010098, 402, "No more component deltas"},
};
// clang-format on
static_assert(sizeof ENGINE_ERRORS / sizeof ENGINE_ERRORS[0] == 51);

}  // namespace

long map_engine_error_code(uint32_t engine_code, char* text, size_t text_size) {
    for (const engine_error& row : ENGINE_ERRORS) {
        if (row.code != engine_code) continue;
        if (text != nullptr) text_copy(text, text_size, row.text, sizeof row.text);
        return static_cast<long>(row.fumo);
    }
    return -1;
}

std::span<const engine_error> engine_errors() {
    return ENGINE_ERRORS;
}
