// The page's template and its texts. In the template, {{name}} is a value, {{t:key}} a text of the language,
// {{#name}}...{{/name}} what is there for each element of a list, or once when the value is true or a text
// that is not empty, and {{^name}}...{{/name}} what is there otherwise. Whatever is put in is escaped.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

// One table a language: its keys, and texts in which {name} stands for a value.
using text_table = nlohmann::json;

[[nodiscard]] std::string html_escaped(std::string_view text);

// The text of `key`, its {name}s taken from `values`, not escaped; the key itself when there is no such text.
[[nodiscard]] std::string text_of(const text_table& texts, const std::string& key,
                                  const nlohmann::json& values = nlohmann::json::object());

// Throws std::exception for a template that is not of that form.
[[nodiscard]] std::string render(std::string_view page, const nlohmann::json& values,
                                 const text_table& texts);
