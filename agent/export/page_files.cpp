#include "export/page_files.h"

// The assembler finds the files below this directory. A declared name cannot be in parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define TOLVANE_EMBED(symbol, file)                                          \
    asm(".pushsection .rodata\n" #symbol ":\n.incbin \"" file "\"\n" #symbol \
        "_end:\n.popsection");                                               \
    extern "C" const char symbol[];                                          \
    extern "C" const char symbol##_end[]
// NOLINTEND(bugprone-macro-parentheses)

TOLVANE_EMBED(tolvane_index_html, "page/index.html");
TOLVANE_EMBED(tolvane_page_css, "page/page.css");
TOLVANE_EMBED(tolvane_page_js, "page/page.js");
TOLVANE_EMBED(tolvane_model_js, "page/model.js");
TOLVANE_EMBED(tolvane_table_js, "page/table.js");
TOLVANE_EMBED(tolvane_sparkline_js, "page/sparkline.js");
TOLVANE_EMBED(tolvane_format_js, "page/format.js");
TOLVANE_EMBED(tolvane_icon_svg, "page/icon.svg");

namespace tolvane::agent {

namespace {

std::string_view between(const char* begin, const char* end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

constexpr char kHtml[] = "text/html; charset=utf-8";
constexpr char kCss[] = "text/css; charset=utf-8";
constexpr char kScript[] = "text/javascript; charset=utf-8";

const PageFile kFiles[] = {
    {"/", kHtml, between(tolvane_index_html, tolvane_index_html_end)},
    {"/page.css", kCss, between(tolvane_page_css, tolvane_page_css_end)},
    {"/page.js", kScript, between(tolvane_page_js, tolvane_page_js_end)},
    {"/model.js", kScript, between(tolvane_model_js, tolvane_model_js_end)},
    {"/table.js", kScript, between(tolvane_table_js, tolvane_table_js_end)},
    {"/sparkline.js", kScript, between(tolvane_sparkline_js, tolvane_sparkline_js_end)},
    {"/format.js", kScript, between(tolvane_format_js, tolvane_format_js_end)},
    {"/icon.svg", "image/svg+xml", between(tolvane_icon_svg, tolvane_icon_svg_end)},
};

}  // namespace

const PageFile* pageFile(std::string_view path) {
    for (const PageFile& file : kFiles) {
        if (path == file.path) return &file;
    }
    return nullptr;
}

}  // namespace tolvane::agent
