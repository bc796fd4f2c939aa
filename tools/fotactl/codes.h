// Every number that the daemon, its installer and its tools speak in, and what to make of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class code_kind { RESULT, CLIENT_ERROR, EVENT, OUTCOME, ENGINE_ERROR, EXIT_STATUS };

struct code_entry {
    code_kind kind;
    int64_t first;        // engine errors: unsigned
    int64_t last;         // the same, but for a range
    std::string name;     // exit statuses: the program; empty where numbers have no names
    std::string meaning;  // events: what it asks for
    std::string cause;    // why one usually meets it; events: empty
    std::string action;   // what to do; events: what sends it by hand
};

struct command_section;

// Lets events be described by the commands that send them. Before the codes are asked for.
void describe_events(std::vector<command_section> commands);

// All of them, by kind and in the order of their page.
[[nodiscard]] const std::vector<code_entry>& all_codes();

// "result code".
[[nodiscard]] const char* code_kind_name(code_kind kind);

// Those that `text` stands for: a number in decimal or 0x form, or a name, which may lack its FOTA_ prefix
// and be in small letters. Engine errors are found in the signed and the unsigned form.
[[nodiscard]] std::vector<code_entry> find_codes(const std::string& text);

// "event 3 (FOTA_MSG_CLEAR_SESSION_LOCK)", "exit status 3 of fotactl", "installer engine error 0x8000000D
// (-2147483635)".
[[nodiscard]] std::string code_title(const code_entry& entry);

// What the status of a history record means, and what to do about a result; null when nothing is said of it.
[[nodiscard]] const char* outcome_meaning(uint32_t status);
[[nodiscard]] const char* result_action(int result);

// All as a page in Markdown, which docs/codes.md is.
[[nodiscard]] std::string codes_page();
