#pragma once

// The engine operations the extension uses, in plain C++ types. Only
// vesk_host.cpp and vesk_entry.cpp see the engine's own headers; everything
// else reaches the engine through these names.

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

// Error types, as the engine numbers them.
enum : int {
    VESK_E_ERROR = 1,
    VESK_E_WARNING = 2,
    VESK_E_CORE_WARNING = 32,
};

// Directive scopes, as the engine numbers them.
enum : int {
    VESK_INI_SYSTEM = 4,
    VESK_INI_ALL = 7,
};

// The callback type of a plain "key = value" entry of an ini file.
enum : int { VESK_INI_PARSER_ENTRY = 1 };

// One entry of the engine's extension list.
struct VeskExtensionInfo
{
    const char* name;
    const char* author;
    void* handle;       // the shared object it was loaded from, or null
    int resourceNumber; // its slot in the executor's reserved words, or -1
};

// Loading and configuration.
int vesk_startup_module();
bool vesk_get_extension(const char* name, VeskExtensionInfo* out);
int vesk_register_ini_entries();
void vesk_unregister_ini_entries();
long vesk_ini_long(const char* name, size_t length);
// A value of the engine's configuration (php.ini, -d, and what was added
// below), or null. `length` counts the bytes of the key that are compared.
const char* vesk_get_configuration_directive(const char* name, size_t length);
void vesk_add_configuration_directive(const char* name, size_t nameLength,
                                      const char* value, size_t valueLength);

// The scan directory the engine was built with (PHP_CONFIG_FILE_SCAN_DIR of
// the running binary, which differs between Debian's SAPIs), or null.
const char* vesk_engine_scan_dir();

typedef void (*VeskIniCallback)(const char* key, size_t keyLength, const char* value,
                                size_t valueLength, int callbackType, void* arg);
// Parses an open ini file with the engine's own parser; the file is closed.
// Answers 0, or -1 when the file doesn't parse.
int vesk_parse_ini_file(FILE* file, const char* path, VeskIniCallback callback, void* arg);

enum class VeskIniApply { Applied, NoEntry, Refused };
// Gives a value to a registered directive through its own update handler,
// as if it had stood in php.ini.
VeskIniApply vesk_apply_ini_entry(const char* name, size_t nameLength, const char* value,
                                  size_t valueLength);

// Error reporting towards the script's author.
void vesk_error(int type, const char* format, ...) __attribute__((format(printf, 2, 3)));
// A line in PHP's own error log (error_log, else the server's log).
void vesk_log_error(const char* message);

// Server API and request.
const char* vesk_sapi_name();
bool vesk_sapi_has_getenv();
// The server's variable of this request (HTTP_HOST, REQUEST_URI, ...), or null.
const char* vesk_sapi_getenv(const char* name);
const char* vesk_request_query_string();
const char* vesk_request_cookie_data();
// Reads the whole request body, leaving the stream rewound. False without one.
bool vesk_read_request_body(std::string* body);
// Decodes %xx and '+' in place; answers the new length.
size_t vesk_url_decode(char* text, size_t length);

// The information page.
void vesk_info_table_start();
void vesk_info_table_row(const char* name, const char* value);
void vesk_info_table_end();

// Superglobals, as rules read them. Each call looks the superglobal up
// afresh (arming one the engine prepares only on demand) and walks `keys`:
// array elements by string key, properties of stdClass objects; any other
// object keeps its place and uses the key up.
struct VeskKey
{
    const char* data;
    size_t length;
};
// The element's text: integers in decimal, doubles with the engine's
// precision, strings as they are, booleans as "true"/"false", anything else
// serialised. False, with `text` empty, when the walk ends on nothing.
bool vesk_global_element_text(const char* name, size_t nameLength, const VeskKey* keys,
                              size_t keyCount, std::string* text);
bool vesk_global_element_exists(const char* name, size_t nameLength, const VeskKey* keys,
                                size_t keyCount);
// The whole superglobal, serialised.
bool vesk_global_serialized(const char* name, size_t nameLength, std::string* text);
bool vesk_global_exists(const char* name, size_t nameLength);

// The top-level keys of $_COOKIE, as PHP made them of the Cookie header.
void vesk_cookie_names(std::vector<std::string>* names);
// The request and its response.
const char* vesk_request_method();
// The request URI as the server API keeps it (php-fpm: the script name).
const char* vesk_request_uri();
// Whether the server API took credentials from the request (HTTP
// authentication) or was told of an authenticated user.
bool vesk_request_has_credentials();
int vesk_response_code();
// Sets the response code, dropping a status line the engine already made
// so that it composes a new one.
void vesk_set_response_code(int code);
int vesk_exit_status();
void vesk_reset_exit_status();
void vesk_set_modules_activated();
// Whether the executor's reserved word of that slot holds something.
bool vesk_reserved_word_set(int index);
// The resource number of the engine extension of that name and author; 0
// when no such extension is loaded.
int vesk_extension_resource_number(const char* name, const char* author);
// Adds a header line; `replace` first drops the lines of the same name.
void vesk_add_header(const char* line, size_t length, bool replace);
// The same for a line the engine held when a stored page was made: where
// the server keeps no lines of its own and the line means nothing to the
// engine beyond its text, it goes into the response's list as it is.
void vesk_add_stored_header(const char* line, size_t length, bool replace);
// The header lines the response holds now, in order.
std::vector<std::string> vesk_header_lines();
// Drops the response's lines of that name, as header_remove() does.
void vesk_remove_header(const char* name, size_t length);
// Whether the response's headers have gone out already.
bool vesk_headers_sent();
// Writes a stored page's whole body. With `sized`, and where the bytes go
// to the server unchanged (no output level but the engine's own empty
// buffer) under a status that has a body, the response says its length
// first, so the server need not frame the body in chunks.
void vesk_output_write(const char* data, size_t length, bool sized);
int vesk_output_get_level();
void vesk_output_end();
// Whether an output handler is running right now.
bool vesk_output_handler_running();
// Whether the top of the output stack is the capture's own handler.
bool vesk_output_capture_on_top();
// Whether an output handler compresses the response on its way out
// (zlib.output_compression, or ob_gzhandler as output_handler or the
// script's own).
bool vesk_output_compressing();
// Called from the capture's handler as the script ends its level: starts
// counting the body bytes the server is handed from now on. False, and no
// count, when a level below changes what passes through it (compression,
// a callback), so the count could not be checked.
bool vesk_output_watch_rest(size_t passedOn);
// Ends the count: whether the server got just what the levels below held
// and the ended level passed on, nothing written after it.
bool vesk_output_rest_as_expected();
void vesk_sapi_flush();
// Whether the server can end a response before its request ends (php-fpm's
// fastcgi_finish_request), so that work after it keeps no client waiting.
bool vesk_can_finish_response_early();
// Sends what the response holds and ends it for the client. From then on
// the request runs for the store alone: the response starts again under
// `responseCode`, with no header lines and none of them sent, the capture
// hands nothing on, flushes go nowhere, and a closed connection doesn't
// stop the script. False, and nothing changed, when the server refused.
bool vesk_finish_response_early(int responseCode);

// Hooks of one request. The header hook sees each header operation the
// script makes, then hands it on to the server's own handler. `line` is the
// whole line for Add and Replace, the name for Delete, null for DeleteAll.
// A line of Add or Replace for which the hook answers false is dropped:
// neither the server nor the response gets it.
enum class VeskHeaderOp { Add, Replace, Delete, DeleteAll };
typedef bool (*VeskHeaderCallback)(VeskHeaderOp op, const char* line, size_t length);
void vesk_install_header_hook(VeskHeaderCallback callback);
// Forwards the server's flush, so the server may flush while hooks stand.
void vesk_install_flush_forwarder();
// Puts back the server's header handler and flush, and the compiler.
void vesk_restore_request_hooks();
// Makes the next script compilation end the request at once, unrun, with
// a bailout that names `file` and `line`; the engine neither opens the main
// script, changes into its directory nor arms its time limit for it (undone by
// vesk_restore_request_hooks).
void vesk_arm_compile_stub(const char* file, int line);
// The output handler "HTML Cache": sees the output when it is flushed,
// cleaned or ended, and always passes it on unchanged. `output` is null
// when the engine gave none.
struct VeskOutputPass
{
    bool flush;    // ob_flush() of this level: the data goes on now
    bool clean;    // the data is thrown away (ob_clean, ob_end_clean)
    bool final;    // the handler's level ends
    bool byScript; // a script call did it, not the end of the request
};
typedef void (*VeskOutputCallback)(const char* output, size_t length, const VeskOutputPass& pass);
// Opens the handler with the engine's standard flags, so that the script
// may flush, clean and remove it like a buffer of its own. Answers the
// output level with the handler on top, or -1.
int vesk_start_output_capture(VeskOutputCallback callback);
// Unwinds the running script to the end of the request.
[[noreturn]] void vesk_bailout(const char* file, int line);

// The session module. A rule that reads $_SESSION waits for the script to
// start its session; these let the page cache see that moment.
struct VeskSessionCallbacks
{
    // Around the session module's own request start.
    void (*requestStartupBegins)();
    void (*requestStartupEnds)();
    // Around a call of a wrapped session function. `before` is the session
    // status when the call began.
    void (*functionBegins)(const char* name);
    void (*functionEnds)(const char* name, int before);
    // A wrapped function whose own handler was lost.
    void (*handlerMissing)(const char* name);
};
bool vesk_find_session_module();
bool vesk_find_session_globals();
// Puts a wrapper around the named PHP function; false when there is none.
bool vesk_wrap_session_function(const char* name);
void vesk_wrap_session_request_startup(const VeskSessionCallbacks* callbacks);
void vesk_restore_session_module();
// 2 while a session is active.
int vesk_session_status();
// Ends the top output level, passing what it held on; answers its length.
size_t vesk_output_end_top();

// Script functions. The engine hands each call of one of the extension's
// PHP functions to the extension with an opaque VeskCall.
struct VeskCall;

// A PHP value as the script functions read it: scalars by value, an array as
// its elements in the array's own order, undefined slots left out. Arrays
// nested deeper than VeskValueDepth come out as Other.
struct VeskArrayElement;
struct VeskValue
{
    enum Type { Null, False, True, Long, Double, String, Array, Other };
    Type type = Null;
    long long number = 0;
    double real = 0;
    std::string text;
    std::vector<VeskArrayElement> elements;
};
struct VeskArrayElement
{
    bool hasStringKey = false;
    std::string key;     // with hasStringKey
    long long index = 0; // otherwise
    VeskValue value;
};
enum : int { VeskValueDepth = 32 };

int vesk_num_args(VeskCall* call);
// Parses the call's arguments with one of the formats "s|b", "ss|b", "a|b",
// "|b", "a" and "z" (one value of any type), without the engine's own messages. `args` gets one value per
// argument given. False on a mismatch or an unknown format.
bool vesk_parse_parameters(VeskCall* call, const char* format, std::vector<VeskValue>* args);
// The engine's own complaint about the number of arguments.
void vesk_wrong_param_count(VeskCall* call);

// One fact for the host's statistics function, as the array it receives.
struct VeskStatisticsRecord
{
    int recordType;
    int recordSubType;
    double counterValue;
    long long appId;
    const char* userNamespace; // left out of the array when null
    const char* extraData;     // likewise
};
// Calls the script's function `name` with the record as its one argument,
// dropping the result. False when no such function is defined.
bool vesk_call_statistics_function(const char* name, const VeskStatisticsRecord& record);

// Statements a script sends through mysqli and PDO (query, real_query,
// multi_query, execute_query, prepare and execute; PDO's query, exec,
// prepare and execute) and the drivers' own transaction calls. The
// callbacks run after the call, only while `*watching` is set; a hit runs
// no script, so it never gets here.
enum : int { VeskBegin = 1, VeskCommit = 2, VeskRollback = 3, VeskAutocommitOff = 4, VeskAutocommitOn = 5 };
struct VeskQueryCallbacks
{
    const bool* watching;
    // `sql` is null for a prepared statement whose text wasn't seen.
    // `mysql`: MySQL's dialect, where a backslash escapes in quoted text.
    // `succeeded`: the call answered neither false nor an exception.
    void (*statement)(const char* sql, size_t length, bool mysql, bool succeeded);
    // One of VeskBegin ... VeskAutocommitOn.
    void (*transaction)(int control, bool succeeded);
};
// Wraps what of mysqli and PDO is loaded; answers how many calls it watches.
int vesk_watch_queries(const VeskQueryCallbacks* callbacks);
// Request end: the texts of prepared statements go with their objects.
void vesk_forget_prepared();
