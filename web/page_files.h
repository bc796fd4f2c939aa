// The files of the page, which are part of the program.
#pragma once

#include <span>
#include <string_view>

struct page_file {
    std::string_view name;
    std::string_view content;
};

[[nodiscard]] std::span<const page_file> page_files();
