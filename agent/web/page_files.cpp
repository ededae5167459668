#include "web/page_files.h"

// The assembler finds the files below this directory.
#define TOLVANE_EMBED(symbol, file)                                          \
    asm(".pushsection .rodata\n" #symbol ":\n.incbin \"" file "\"\n" #symbol \
        "_end:\n.popsection");                                               \
    extern "C" const char symbol[];                                          \
    extern "C" const char symbol##_end[]

TOLVANE_EMBED(tolvane_page_html, "page/index.html");
TOLVANE_EMBED(tolvane_page_css, "page/page.css");
TOLVANE_EMBED(tolvane_page_js, "page/page.js");
TOLVANE_EMBED(tolvane_page_icon, "page/icon.svg");

namespace tolvane::agent {

namespace {

std::string_view between(const char* begin, const char* end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

const PageFile kFiles[] = {
    {"/", "text/html; charset=utf-8", between(tolvane_page_html, tolvane_page_html_end)},
    {"/page.css", "text/css; charset=utf-8", between(tolvane_page_css, tolvane_page_css_end)},
    {"/page.js", "text/javascript; charset=utf-8", between(tolvane_page_js, tolvane_page_js_end)},
    {"/icon.svg", "image/svg+xml", between(tolvane_page_icon, tolvane_page_icon_end)},
};

}  // namespace

const PageFile* pageFile(std::string_view path) {
    for (const PageFile& file : kFiles) {
        if (path == file.path) return &file;
    }
    return nullptr;
}

}  // namespace tolvane::agent
