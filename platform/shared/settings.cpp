#include "settings.h"

#include <pugixml.hpp>

#include "number_text.h"

namespace {

constexpr char FEATURES_FILE[] = "/opt/qast/etc/features.xml";
constexpr int SETTINGS_UNREADABLE = 0x20001;

// A feature that is not named, or has no number, is one that the device does not have.
uint32_t feature(pugi::xml_node features, const char* name) {
    uint32_t value = 0;
    return platform::parse_uint32(features.child_value(name), &value) ? value : 0;
}

}  // namespace

extern "C" int settings_get_features(settings_features* features) {
    pugi::xml_document document;
    if (!document.load_file(FEATURES_FILE)) return SETTINGS_UNREADABLE;
    const pugi::xml_node root = document.child("Features");
    if (!root) return SETTINGS_UNREADABLE;
    features->power_saving = feature(root, "PowerSave");
    features->fota_enabled = feature(root, "Fota");
    return SETTINGS_SUCCESS;
}
