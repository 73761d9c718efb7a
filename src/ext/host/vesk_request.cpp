// The engine side of one request: response code, headers, output, and the
// hooks that the page cache puts in for the length of a request.

#include "php.h"
#include "php_output.h"
#include "SAPI.h"
#include "zend_extensions.h"

#include "vesk_hook.h"
#include "vesk_host.h"

#include <charconv>

namespace {

VeskHeaderCallback headerCallback = nullptr;
VeskOutputCallback outputCallback = nullptr;
const char* stubFile = nullptr;
int stubLine = 0;
// Body bytes the server has been handed since the watch began, and how
// many of them were already on their way when it began.
size_t bytesWritten = 0;
size_t bytesExpected = 0;
// A level below the capture that compresses (zlib.output_compression,
// ob_gzhandler): its bytes out can't be compared with the page, so the
// bytes it is handed are counted instead, until it passes on its last.
php_output_handler* compressingLevel = nullptr;
php_output_handler_context_func_t compressingFunc = nullptr;
size_t bytesCompressed = 0;
size_t compressedExpected = 0;
// CGI and FastCGI write the header block through the same call as the body.
bool sendingHeaders = false;
// The client had its response; the rest of the request is for the store.
bool responseFinished = false;
// The engine was told by us, for one request answered from the store, not
// to change into the script's directory: no script runs there.
bool chdirSkipped = false;
// Likewise not to arm the script's time limit (max_execution_time), a
// timer call of its own: the one armed at the request's start, by
// max_input_time, still stands. The value to put back, or -1.
zend_long inputTimeSkipped = -1;
const char FinishFunction[] = "fastcgi_finish_request";

int headerHook(sapi_header_struct* header, sapi_header_op_enum op, sapi_headers_struct* headers);
void flushForwarder(void* context);
zend_op_array* compileStub(zend_file_handle* handle, int);
zend_result primaryScriptUnopened(zend_file_handle* handle);
size_t countingUbWrite(const char* data, size_t length);
int headerAwareSendHeaders(sapi_headers_struct* headers);
void listLine(const char* line, size_t length, size_t nameLength, bool replace);

VeskHook<decltype(sapi_module.header_handler)> headerSlot(headerHook);
VeskHook<decltype(sapi_module.flush)> flushSlot(flushForwarder);
VeskHook<decltype(zend_compile_file)> compileSlot(compileStub);
VeskHook<decltype(zend_stream_open_function)> streamOpenSlot(primaryScriptUnopened);
VeskHook<decltype(sapi_module.ub_write)> ubWriteSlot(countingUbWrite);
VeskHook<decltype(sapi_module.send_headers)> sendHeadersSlot(headerAwareSendHeaders);

size_t countingUbWrite(const char* data, size_t length)
{
    if (!sendingHeaders)
        bytesWritten += length;
    return ubWriteSlot.original()(data, length);
}

int headerAwareSendHeaders(sapi_headers_struct* headers)
{
    sendingHeaders = true;
    const int sent = sendHeadersSlot.original()(headers);
    sendingHeaders = false;
    return sent;
}

int headerHook(sapi_header_struct* header, sapi_header_op_enum op, sapi_headers_struct* headers)
{
    if (headerCallback) {
        switch (op) {
        case SAPI_HEADER_ADD:
        case SAPI_HEADER_REPLACE:
        case SAPI_HEADER_DELETE:
            if (header && header->header) {
                const VeskHeaderOp ours = op == SAPI_HEADER_ADD       ? VeskHeaderOp::Add
                                          : op == SAPI_HEADER_REPLACE ? VeskHeaderOp::Replace
                                                                      : VeskHeaderOp::Delete;
                if (!headerCallback(ours, header->header, header->header_len) && op != SAPI_HEADER_DELETE)
                    return 0;
            }
            break;
        case SAPI_HEADER_DELETE_ALL:
            // The engine hands this one an uninitialised header: never read it.
            headerCallback(VeskHeaderOp::DeleteAll, nullptr, 0);
            break;
        default:
            break;
        }
    }
    const auto original = headerSlot.original();
    return original ? original(header, op, headers) : SAPI_HEADER_ADD;
}

void flushForwarder(void* context)
{
    // A flush into a response already ended would count as a client gone.
    if (responseFinished)
        return;
    if (const auto original = flushSlot.original())
        original(context);
}

zend_op_array* compileStub(zend_file_handle* handle, int)
{
    if (handle && handle->type == ZEND_HANDLE_FP && handle->handle.fp) {
        fclose(handle->handle.fp);
        handle->handle.fp = nullptr;
    }
    _zend_bailout(const_cast<char*>(stubFile), uint32_t(stubLine));
}

// The server opens the main script before it runs it, for the stub to close
// unread: a request answered from the store leaves it unopened. Any other
// file (none is opened before the stub ends the request) opens as ever.
zend_result primaryScriptUnopened(zend_file_handle* handle)
{
    if (handle && handle->primary_script && !EG(current_execute_data))
        return SUCCESS;
    const auto original = streamOpenSlot.original();
    return original ? original(handle) : FAILURE;
}

void outputHandler(char* output, size_t length, char** handled, size_t* handledLength, int mode)
{
    // Whatever happens, the output passes on as it came, unless the
    // response has ended: then it is for the store alone.
    *handled = nullptr;
    *handledLength = length;
    if (responseFinished) {
        *handled = static_cast<char*>(emalloc(1));
        *handledLength = 0;
    }
    if (!outputCallback)
        return;
    VeskOutputPass pass;
    pass.flush = (mode & PHP_OUTPUT_HANDLER_FLUSH) != 0;
    pass.clean = (mode & PHP_OUTPUT_HANDLER_CLEAN) != 0;
    pass.final = (mode & PHP_OUTPUT_HANDLER_FINAL) != 0;
    // The engine ends the stack after the script and its shutdown work;
    // while code still runs, it was the script that asked.
    pass.byScript = zend_is_executing();
    outputCallback(output, length, pass);
}

const char CaptureName[] = "HTML Cache";

bool isCompressing(const php_output_handler* level)
{
    return zend_string_equals_literal(level->name, "zlib output compression")
           || zend_string_equals_literal(level->name, "ob_gzhandler");
}

// What the levels below `level` hold; -1 unless each passes its bytes on
// unchanged.
long heldBelow(const php_output_handler* level)
{
    long held = 0;
    auto* levels = static_cast<php_output_handler**>(zend_stack_base(&OG(handlers)));
    for (int i = 0; i < zend_stack_count(&OG(handlers)) && levels[i] != level; ++i) {
        if (!zend_string_equals_literal(levels[i]->name, "default output handler"))
            return -1;
        held += long(levels[i]->buffer.used);
    }
    return held;
}

int countingCompressor(void** handlerContext, php_output_context* context)
{
    bytesCompressed += context->in.used;
    const int result = compressingFunc(handlerContext, context);
    if (result == SUCCESS && !(context->op & PHP_OUTPUT_HANDLER_FINAL))
        return result;
    // Its last pass, or it gave up and passes its bytes on as they came:
    // from here on the server gets what the levels below hold and this.
    bytesWritten = 0;
    bytesExpected = size_t(heldBelow(compressingLevel)) + (result == SUCCESS ? context->out.used : context->in.used);
    compressingLevel->func.internal = compressingFunc;
    compressingLevel = nullptr;
    return result;
}

// Counts what the compressing level at `index` is handed from now on.
bool watchCompressing(php_output_handler** levels, int index, size_t heldAbove, size_t passedOn)
{
    php_output_handler* level = levels[index];
    if ((level->flags & PHP_OUTPUT_HANDLER_USER) || (level->flags & PHP_OUTPUT_HANDLER_DISABLED)
        || heldBelow(level) < 0)
        return false;
    compressingLevel = level;
    compressingFunc = level->func.internal;
    level->func.internal = countingCompressor;
    bytesCompressed = 0;
    compressedExpected = heldAbove + level->buffer.used + passedOn;
    return true;
}

} // namespace

const char* vesk_request_method()
{
    return SG(request_info).request_method;
}

const char* vesk_request_uri()
{
    return SG(request_info).request_uri;
}

bool vesk_request_has_credentials()
{
    const sapi_request_info& info = SG(request_info);
    return info.auth_user || info.auth_password || info.auth_digest;
}

int vesk_response_code()
{
    return SG(sapi_headers).http_response_code;
}

void vesk_set_response_code(int code)
{
    if (SG(sapi_headers).http_status_line) {
        efree(SG(sapi_headers).http_status_line);
        SG(sapi_headers).http_status_line = nullptr;
    }
    SG(sapi_headers).http_response_code = code;
}

int vesk_exit_status()
{
    return EG(exit_status);
}

void vesk_reset_exit_status()
{
    EG(exit_status) = 0;
}

void vesk_set_modules_activated()
{
    PG(modules_activated) = 1;
}

bool vesk_reserved_word_set(int index)
{
    return index >= 0 && index < ZEND_MAX_RESERVED_RESOURCES && EG(reserved)[index] != nullptr;
}

int vesk_extension_resource_number(const char* name, const char* author)
{
    for (zend_llist_element* element = zend_extensions.head; element; element = element->next) {
        const zend_extension* extension = reinterpret_cast<const zend_extension*>(element->data);
        if (extension->name && extension->author && strcmp(extension->name, name) == 0
            && strcmp(extension->author, author) == 0)
            return extension->resource_number;
    }
    return 0;
}

void vesk_add_header(const char* line, size_t length, bool replace)
{
    sapi_add_header_ex(line, length, true, replace);
}

namespace {

struct HeaderName {
    const char* text;
    size_t length;
};

int isNamed(void* element, void* name)
{
    const auto* header = static_cast<const sapi_header_struct*>(element);
    const auto* wanted = static_cast<const HeaderName*>(name);
    return header->header_len >= wanted->length
           && (header->header_len == wanted->length || header->header[wanted->length] == ':')
           && strncasecmp(header->header, wanted->text, wanted->length) == 0;
}

// Whether the server takes each line as it is added (Apache), rather than
// reading the engine's list when the headers go.
bool serverKeepsLines()
{
    return (sapi_module.header_handler == headerHook ? headerSlot.original() : sapi_module.header_handler) != nullptr;
}

// Lines the engine acts on beyond keeping them (a length, a redirect, a
// challenge), and lines it would refuse, take its own way.
bool plainLine(const char* line, size_t length, size_t nameLength)
{
    static const HeaderName acted[] = {{"Content-Length", 14}, {"Location", 8}, {"WWW-Authenticate", 16}};
    if (nameLength == 0 || nameLength == length || memchr(line, '\r', length) || memchr(line, '\n', length)
        || memchr(line, '\0', length))
        return false;
    for (const HeaderName& name : acted) {
        if (nameLength == name.length && strncasecmp(line, name.text, nameLength) == 0)
            return false;
    }
    return true;
}

// A stored page's type becomes the response's, and no default one goes
// out. A type the engine would still change (a charset to add, an image
// that turns compression off) is left to it: false then.
bool takeStoredType(const char* line, size_t length, size_t nameLength)
{
    if (nameLength != 12 || strncasecmp(line, "Content-Type", 12) != 0)
        return true;
    const char* value = line + nameLength + 1;
    const char* end = line + length;
    while (value < end && *value == ' ')
        ++value;
    const size_t valueLength = size_t(end - value);
    const char* charset = SG(default_charset) ? SG(default_charset) : SAPI_DEFAULT_CHARSET;
    const bool textWithoutCharset = valueLength >= 5 && strncmp(value, "text/", 5) == 0
                                    && !memmem(value, valueLength, "charset=", 8) && *charset;
    if (valueLength == 0 || textWithoutCharset || (valueLength >= 6 && strncmp(value, "image/", 6) == 0))
        return false;
    if (!SG(sapi_headers).mimetype)
        SG(sapi_headers).mimetype = estrndup(value, valueLength);
    SG(sapi_headers).send_default_content_type = 0;
    return true;
}

} // namespace

void vesk_add_stored_header(const char* line, size_t length, bool replace)
{
    const char* colon = static_cast<const char*>(memchr(line, ':', length));
    const size_t nameLength = colon ? size_t(colon - line) : 0;
    if (serverKeepsLines() || SG(headers_sent) || !plainLine(line, length, nameLength)
        || !takeStoredType(line, length, nameLength)) {
        vesk_add_header(line, length, replace);
        return;
    }
    listLine(line, length, nameLength, replace);
}

namespace {

void listLine(const char* line, size_t length, size_t nameLength, bool replace)
{
    zend_llist* headers = &SG(sapi_headers).headers;
    if (replace) {
        HeaderName name = {line, nameLength};
        for (size_t count = 0; count != zend_llist_count(headers);) {
            count = zend_llist_count(headers);
            zend_llist_del_element(headers, &name, isNamed);
        }
    }
    sapi_header_struct header;
    header.header = estrndup(line, length);
    header.header_len = length;
    zend_llist_add_element(headers, &header);
}

} // namespace

std::vector<std::string> vesk_header_lines()
{
    std::vector<std::string> lines;
    for (zend_llist_element* element = SG(sapi_headers).headers.head; element; element = element->next) {
        const sapi_header_struct* header = reinterpret_cast<const sapi_header_struct*>(element->data);
        lines.emplace_back(header->header, header->header_len);
    }
    return lines;
}

void vesk_remove_header(const char* name, size_t length)
{
    sapi_header_line line = {};
    line.line = name;
    line.line_len = length;
    sapi_header_op(SAPI_HEADER_DELETE, &line);
}

bool vesk_headers_sent()
{
    return SG(headers_sent) != 0;
}

namespace {

// Whether the one level of output is the engine's own buffer
// (output_buffering), empty: it hands on what it is given unchanged, so a
// body written past it goes out as it would through it, without being
// copied into the buffer and out again first.
bool onlyAnEmptyDefaultBuffer()
{
    const php_output_handler* active = OG(active);
    return active && zend_stack_count(&OG(handlers)) == 1 && active->buffer.used == 0
           && !(active->flags & PHP_OUTPUT_HANDLER_DISABLED)
           && zend_string_equals_literal(active->name, "default output handler");
}

} // namespace

namespace {

// The body's length, where nothing after this point can change the bytes
// the server is handed: the hit's stub ends the request before any script
// or output level could add to them.
void sayLength(size_t length)
{
    const int status = SG(sapi_headers).http_response_code;
    if (SG(headers_sent) || (status >= 100 && status < 200) || status == 204 || status == 304)
        return;
    static constexpr char name[] = "Content-Length";
    char line[40] = "Content-Length: ";
    const size_t written = size_t(std::to_chars(line + sizeof name + 1, line + sizeof line, length).ptr - line);
    // The engine, told of a length, turns zlib.output_compression off for
    // the request; none runs here (it would be a level), so the line may
    // go straight into the list where the server keeps none of its own.
    if (serverKeepsLines())
        vesk_add_header(line, written, true);
    else
        listLine(line, written, sizeof name - 1, true);
}

} // namespace

void vesk_output_write(const char* data, size_t length, bool sized)
{
    // A stored page usually goes out while the request is still starting.
    // Were the client gone, the engine's abort handling would bail out of
    // the start-up itself, which php-fpm and php-cgi answer by ending the
    // worker. With the abort ignored for this one write, the engine merely
    // switches the output off and the request ends as any hit does.
    const bool ignoreAbort = PG(ignore_user_abort);
    PG(ignore_user_abort) = true;
    // Without an active level the engine sends the headers (none with the
    // body of a HEAD request) and writes the body to the server at once.
    php_output_handler* active = onlyAnEmptyDefaultBuffer() ? OG(active) : nullptr;
    if (sized && (active || !php_output_get_level()))
        sayLength(length);
    if (active)
        OG(active) = nullptr;
    php_output_write(data, length);
    if (active)
        OG(active) = active;
    PG(ignore_user_abort) = ignoreAbort;
}

int vesk_output_get_level()
{
    return php_output_get_level();
}

void vesk_output_end()
{
    php_output_end();
}

bool vesk_output_handler_running()
{
    return OG(running) != nullptr;
}

bool vesk_output_capture_on_top()
{
    const php_output_handler* top = OG(active);
    return top && top->name && zend_string_equals_literal(top->name, CaptureName);
}

bool vesk_output_compressing()
{
    return php_output_handler_started(ZEND_STRL("zlib output compression"))
           || php_output_handler_started(ZEND_STRL("ob_gzhandler"));
}

bool vesk_output_watch_rest(size_t passedOn)
{
    // Only levels that pass their bytes on unchanged let the bytes still to
    // come be counted against what was on its way; below a compressing one,
    // what it is handed is counted.
    size_t held = 0;
    const size_t passing = responseFinished ? 0 : passedOn;
    const int count = zend_stack_count(&OG(handlers));
    auto* levels = static_cast<php_output_handler**>(zend_stack_base(&OG(handlers)));
    compressingLevel = nullptr;
    bytesCompressed = compressedExpected = 0;
    for (int i = count - 2; i >= 0 && !compressingLevel; --i) {
        if (isCompressing(levels[i]) && !watchCompressing(levels, i, held, passing))
            return false;
        if (!compressingLevel && !zend_string_equals_literal(levels[i]->name, "default output handler"))
            return false;
        held += levels[i]->buffer.used;
    }
    bytesWritten = 0;
    bytesExpected = compressingLevel ? 0 : held + passing;
    ubWriteSlot.install(sapi_module.ub_write);
    if (sapi_module.send_headers)
        sendHeadersSlot.install(sapi_module.send_headers);
    return true;
}

bool vesk_output_rest_as_expected()
{
    ubWriteSlot.restore(sapi_module.ub_write);
    sendHeadersSlot.restore(sapi_module.send_headers);
    // A compressing level that never passed on its last: nothing to tell by.
    const bool compressorDone = compressingLevel == nullptr;
    compressingLevel = nullptr;
    return compressorDone && bytesCompressed == compressedExpected && bytesWritten == bytesExpected;
}

void vesk_sapi_flush()
{
    sapi_flush();
}

bool vesk_can_finish_response_early()
{
    return zend_hash_str_exists(EG(function_table), FinishFunction, sizeof FinishFunction - 1);
}

bool vesk_finish_response_early(int responseCode)
{
    zval function, result;
    ZVAL_STRINGL(&function, FinishFunction, sizeof FinishFunction - 1);
    ZVAL_UNDEF(&result);
    const bool finished = vesk_can_finish_response_early()
                          && call_user_function(nullptr, nullptr, &function, &result, 0, nullptr) == SUCCESS
                          && Z_TYPE(result) == IS_TRUE;
    zval_ptr_dtor(&result);
    zval_ptr_dtor(&function);
    if (!finished)
        return false;
    responseFinished = true;
    // Header lines now go into the list, for the capture to see, but never
    // out: the server has no response left to put them in.
    SG(request_info).no_headers = 1;
    SG(headers_sent) = 0;
    zend_llist_clean(&SG(sapi_headers).headers);
    SG(sapi_headers).http_response_code = responseCode;
    zend_string* name = zend_string_init("ignore_user_abort", sizeof "ignore_user_abort" - 1, 0);
    zend_alter_ini_entry_chars(name, "1", 1, PHP_INI_USER, PHP_INI_STAGE_RUNTIME);
    zend_string_release(name);
    return true;
}

void vesk_install_header_hook(VeskHeaderCallback callback)
{
    headerCallback = callback;
    headerSlot.install(sapi_module.header_handler);
}

void vesk_install_flush_forwarder()
{
    flushSlot.install(sapi_module.flush);
}

void vesk_restore_request_hooks()
{
    responseFinished = false;
    headerSlot.restore(sapi_module.header_handler);
    flushSlot.restore(sapi_module.flush);
    compileSlot.restore(zend_compile_file);
    streamOpenSlot.restore(zend_stream_open_function);
    if (chdirSkipped) {
        SG(options) &= ~SAPI_OPTION_NO_CHDIR;
        chdirSkipped = false;
    }
    if (inputTimeSkipped != -1) {
        PG(max_input_time) = inputTimeSkipped;
        inputTimeSkipped = -1;
    }
}

void vesk_arm_compile_stub(const char* file, int line)
{
    stubFile = file;
    stubLine = line;
    compileSlot.install(zend_compile_file);
    streamOpenSlot.install(zend_stream_open_function);
    if (!(SG(options) & SAPI_OPTION_NO_CHDIR)) {
        SG(options) |= SAPI_OPTION_NO_CHDIR;
        chdirSkipped = true;
    }
    if (PG(max_input_time) != -1) {
        inputTimeSkipped = PG(max_input_time);
        PG(max_input_time) = -1;
    }
}

int vesk_start_output_capture(VeskOutputCallback callback)
{
    outputCallback = callback;
    if (php_output_start_internal(CaptureName, sizeof CaptureName - 1, outputHandler, 0,
                                  PHP_OUTPUT_HANDLER_STDFLAGS)
        != SUCCESS)
        return -1;
    return php_output_get_level();
}

void vesk_bailout(const char* file, int line)
{
    _zend_bailout(const_cast<char*>(file), uint32_t(line));
}
