// The files of the page, which the build embeds from page/. No state: constant data.
#pragma once

#include <span>
#include <string_view>

namespace views {

struct PageFile {
    std::string_view path; // "/page.css"
    const char* type;
    std::string_view content;
};
extern const std::span<const PageFile> kPageFiles;

} // namespace views
