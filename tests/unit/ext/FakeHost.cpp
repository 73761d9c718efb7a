#include "FakeHost.h"

#include "host/vesk_host.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

FakeHost& FakeHost::instance()
{
    static FakeHost host;
    return host;
}

namespace {
FakeHost& host()
{
    return FakeHost::instance();
}

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return std::string();
    const size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}
} // namespace

long vesk_ini_long(const char*, size_t)
{
    return 0;
}

const char* vesk_get_configuration_directive(const char* name, size_t length)
{
    const auto it = host().configuration.find(std::string(name, length));
    return it == host().configuration.end() ? nullptr : it->second.c_str();
}

const char* vesk_engine_scan_dir()
{
    return host().engineScanDir.c_str();
}

void vesk_add_configuration_directive(const char* name, size_t nameLength, const char* value,
                                      size_t valueLength)
{
    host().configuration[std::string(name, nameLength)] = std::string(value, valueLength);
}

// Enough of the ini syntax for the tests: sections, comments, key = value,
// quoted values.
int vesk_parse_ini_file(FILE* file, const char* path, VeskIniCallback callback, void* arg)
{
    host().parsedFiles.push_back(path);
    char buffer[4096];
    while (fgets(buffer, sizeof buffer, file)) {
        const std::string line = trimmed(buffer);
        if (line.empty() || line[0] == ';' || line[0] == '#' || line[0] == '[')
            continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            callback(line.c_str(), line.size(), nullptr, 0, VESK_INI_PARSER_ENTRY, arg);
            continue;
        }
        const std::string key = trimmed(line.substr(0, equals));
        std::string value = trimmed(line.substr(equals + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        callback(key.c_str(), key.size(), value.c_str(), value.size(), VESK_INI_PARSER_ENTRY, arg);
    }
    fclose(file);
    return 0;
}

VeskIniApply vesk_apply_ini_entry(const char* name, size_t nameLength, const char* value,
                                  size_t valueLength)
{
    const std::string key(name, nameLength);
    if (!host().registeredDirectives.count(key))
        return VeskIniApply::NoEntry;
    host().applied[key] = std::string(value, valueLength);
    return VeskIniApply::Applied;
}

void vesk_error(int type, const char* format, ...)
{
    char message[8192];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    host().errors.emplace_back(type, message);
}

void vesk_log_error(const char* message)
{
    host().errorLog.push_back(message);
}

const char* vesk_sapi_name()
{
    return host().sapiName.c_str();
}

bool vesk_sapi_has_getenv()
{
    return host().hasGetenv;
}

const char* vesk_sapi_getenv(const char* name)
{
    if (!host().hasGetenv)
        return nullptr;
    const auto it = host().serverVariables.find(name);
    return it == host().serverVariables.end() ? nullptr : it->second.c_str();
}

bool vesk_global_element_text(const char*, size_t, const VeskKey*, size_t, std::string*)
{
    return false;
}

const char* vesk_request_query_string()
{
    return host().hasQueryString ? host().queryString.c_str() : nullptr;
}

void vesk_cookie_names(std::vector<std::string>* names)
{
    names->clear();
}

const char* vesk_request_uri()
{
    return nullptr;
}

bool vesk_request_has_credentials()
{
    return false;
}

const char* vesk_request_cookie_data()
{
    return host().cookieData.empty() ? nullptr : host().cookieData.c_str();
}

bool vesk_read_request_body(std::string* body)
{
    if (!host().hasBody)
        return false;
    *body = host().body;
    return true;
}

size_t vesk_url_decode(char* text, size_t length)
{
    size_t out = 0;
    for (size_t i = 0; i < length; ++i) {
        if (text[i] == '+') {
            text[out++] = ' ';
        } else if (text[i] == '%' && i + 2 < length && isxdigit(text[i + 1]) && isxdigit(text[i + 2])) {
            const char hex[3] = {text[i + 1], text[i + 2], 0};
            text[out++] = char(strtol(hex, nullptr, 16));
            i += 2;
        } else {
            text[out++] = text[i];
        }
    }
    text[out] = '\0';
    return out;
}

int vesk_response_code()
{
    return host().responseCode;
}

void vesk_set_response_code(int code)
{
    host().responseCode = code;
}

void vesk_add_header(const char* line, size_t length, bool)
{
    host().headers.emplace_back(line, length);
}

bool vesk_headers_sent()
{
    return false;
}

bool vesk_output_compressing()
{
    return host().outputCompressing;
}

// Like the command line and Apache: a response ends with its request.
bool vesk_can_finish_response_early()
{
    return false;
}

bool vesk_finish_response_early(int)
{
    return false;
}

// No debugger and no statistics function in a test.
int vesk_extension_resource_number(const char*, const char*)
{
    return -1;
}

bool vesk_reserved_word_set(int)
{
    return false;
}

bool vesk_call_statistics_function(const char*, const VeskStatisticsRecord&)
{
    return false;
}
