#include "header_parser.h"

#include <llhttp.h>

#include <cstring>

namespace tolvane::bench {
namespace {

struct Fields {
    ParsedFields found;
    bool isHost = false;
};

Fields& fieldsOf(llhttp_t* parser) {
    return *static_cast<Fields*>(parser->data);
}

// The whole request is in one buffer, so every span comes in one piece.
int onUrl(llhttp_t* parser, const char* at, std::size_t length) {
    fieldsOf(parser).found.url = {at, length};
    return 0;
}
int onName(llhttp_t* parser, const char* at, std::size_t length) {
    fieldsOf(parser).isHost = length == 4 && std::memcmp(at, "Host", 4) == 0;
    return 0;
}
int onValue(llhttp_t* parser, const char* at, std::size_t length) {
    Fields& fields = fieldsOf(parser);
    if (!fields.isHost) return 0;
    fields.found.host = {at, length};
    return HPE_USER;  // ends the parse
}

llhttp_settings_t makeSettings() {
    llhttp_settings_t settings;
    llhttp_settings_init(&settings);
    settings.on_url = onUrl;
    settings.on_header_field = onName;
    settings.on_header_value = onValue;
    return settings;
}

}  // namespace

ParsedFields parseWithLlhttp(std::string_view request) {
    static const llhttp_settings_t settings = makeSettings();
    Fields fields;
    llhttp_t parser;
    llhttp_init(&parser, HTTP_REQUEST, &settings);
    parser.data = &fields;
    llhttp_execute(&parser, request.data(), request.size());
    return fields.found;
}

}  // namespace tolvane::bench
