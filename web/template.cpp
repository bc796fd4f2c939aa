#include "web/template.h"

#include <stdexcept>

using nlohmann::json;

namespace {

std::string value_text(const json& value) {
    if (value.is_string()) return value.get<std::string>();
    return value.is_null() ? "" : value.dump();
}

bool is_there(const json& value) {
    if (value.is_string()) return !value.get_ref<const std::string&>().empty();
    if (value.is_boolean()) return value.get<bool>();
    return !value.is_null() && !(value.is_array() && value.empty());
}

json value_of(const json& values, const std::string& name) {
    const auto found = values.find(name);
    return found != values.end() ? *found : json();
}

// The end of the section `name` that begins at `begin`; sections of one name do not nest.
size_t section_end(std::string_view page, size_t begin, const std::string& name) {
    const size_t end = page.find("{{/" + name + "}}", begin);
    if (end == std::string_view::npos) throw std::runtime_error("the section " + name + " does not end");
    return end;
}

}  // namespace

std::string html_escaped(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                // Control characters are no text; bytes that are not UTF-8 the browser replaces.
                escaped += static_cast<unsigned char>(c) < ' ' || c == '\x7f' ? ' ' : c;
        }
    }
    return escaped;
}

std::string text_of(const text_table& texts, const std::string& key, const json& values) {
    const std::string text = texts.contains(key) ? texts[key].get<std::string>() : key;
    std::string filled;
    for (size_t at = 0; at < text.size();) {
        const size_t begin = text.find('{', at);
        const size_t end = begin == std::string::npos ? begin : text.find('}', begin);
        filled += text.substr(at, begin == std::string::npos ? begin : begin - at);
        if (end == std::string::npos) break;
        filled += value_text(value_of(values, text.substr(begin + 1, end - begin - 1)));
        at = end + 1;
    }
    return filled;
}

std::string render(std::string_view page, const json& values, const text_table& texts) {
    std::string text;
    for (size_t at = 0;;) {
        const size_t begin = page.find("{{", at);
        text += page.substr(at, begin == std::string_view::npos ? begin : begin - at);
        if (begin == std::string_view::npos) return text;
        const size_t end = page.find("}}", begin);
        if (end == std::string_view::npos) throw std::runtime_error("a name in the page does not end");
        std::string name(page.substr(begin + 2, end - begin - 2));
        at = end + 2;
        if (name.starts_with("t:")) {
            text += html_escaped(text_of(texts, name.substr(2), values));
        } else if (name.starts_with("#") || name.starts_with("^")) {
            const bool wanted = name[0] == '#';
            name.erase(0, 1);
            const size_t close = section_end(page, at, name);
            const std::string_view inside = page.substr(at, close - at);
            const json value = value_of(values, name);
            if (wanted && value.is_array()) {
                for (const json& element : value) {
                    json inner = values;
                    inner.update(element);
                    text += render(inside, inner, texts);
                }
            } else if (is_there(value) == wanted) {
                text += render(inside, values, texts);
            }
            at = close + name.size() + 5;  // {{/name}}
        } else {
            text += html_escaped(value_text(value_of(values, name)));
        }
    }
}
