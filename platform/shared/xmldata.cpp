#include "xmldata.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "number_text.h"

namespace {

std::unique_ptr<pugi::xml_document> document;

// The first element at each step of the path; a null node when there is none.
pugi::xml_node find_element(std::string_view key) {
    if (!document || !key.starts_with('/')) return {};
    pugi::xml_node node = document->root();
    while (node && !key.empty()) {
        key.remove_prefix(1);
        const std::string name(key.substr(0, key.find('/')));
        key.remove_prefix(name.size());
        node = node.child(name.c_str());
    }
    return node;
}

}  // namespace

extern "C" int xmldata_initialize(const char* path, const char*) {
    document = std::make_unique<pugi::xml_document>();
    if (document->load_file(path)) return 0;
    document.reset();
    return -1;
}

extern "C" int xmldata_getuint32_default(const char* key, uint32_t* value, uint32_t default_value) {
    *value = default_value;
    return platform::parse_uint32(find_element(key).child_value(), value) ? 0 : -1;
}

extern "C" int xmldata_getstring_default(const char* key, char* text, int max_length,
                                         const char* default_text) {
    const pugi::xml_node element = find_element(key);
    const std::string_view found = element ? platform::trimmed(element.child_value()) : default_text;
    const size_t length = std::min(found.size(), static_cast<size_t>(std::max(max_length, 0)));
    memcpy(text, found.data(), length);
    text[length] = '\0';
    return element ? 0 : -1;
}

extern "C" int xmldata_getcount(const char* key, int* count) {
    *count = 0;
    if (!document) return -1;
    for (pugi::xml_node node = find_element(key); node; node = node.next_sibling(node.name())) ++*count;
    return 0;
}

extern "C" void xmldata_shutdown(void) {
    document.reset();
}
