#include "tools/packages/size_limit.h"

#include "tools/common/output.h"

size_judgement judge_size(uint64_t size, uint64_t limit, bool is_bundle) {
    const std::string bytes = size_text(limit);
    if (size <= limit) return {"fits", "within " + bytes};
    const std::string above = "above " + bytes + ", which is what agents are told";
    if (is_bundle) return {"above", above + "; devices join a bundle of any size"};
    if (size <= 2 * limit) return {"above", above + ", and within twice that"};
    return {"refused", "more than twice " + bytes + ": refused when side-loaded"};
}
