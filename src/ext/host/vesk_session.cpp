// Hooks into the session module: its request start, and the functions that
// start a session.

#include "php.h"
#include "php_output.h"
#include "ext/session/php_session.h"

#include "vesk_host.h"

#include <dlfcn.h>

namespace {

zend_module_entry* sessionModule = nullptr;
php_ps_globals* sessionGlobals = nullptr;
zend_result (*savedRequestStartup)(int, int) = nullptr;
const VeskSessionCallbacks* callbacks = nullptr;
HashTable* savedHandlers = nullptr;

zend_result requestStartupWrapper(int type, int moduleNumber)
{
    if (callbacks)
        callbacks->requestStartupBegins();
    const zend_result result = savedRequestStartup ? savedRequestStartup(type, moduleNumber) : SUCCESS;
    if (callbacks)
        callbacks->requestStartupEnds();
    return result;
}

void functionWrapper(INTERNAL_FUNCTION_PARAMETERS)
{
    const char* name = get_active_function_name();
    const int before = vesk_session_status();
    zif_handler handler = nullptr;
    if (name && savedHandlers)
        handler = reinterpret_cast<zif_handler>(zend_hash_str_find_ptr(savedHandlers, name, strlen(name)));
    if (!handler) {
        if (callbacks)
            callbacks->handlerMissing(name ? name : "");
        return;
    }
    if (callbacks)
        callbacks->functionBegins(name);
    handler(execute_data, return_value);
    if (callbacks)
        callbacks->functionEnds(name, before);
}

} // namespace

bool vesk_find_session_module()
{
    sessionModule = static_cast<zend_module_entry*>(zend_hash_str_find_ptr(&module_registry, "session", 7));
    return sessionModule != nullptr;
}

bool vesk_find_session_globals()
{
    // The same global look-up each time: the name of the library it comes
    // from plays no part in it.
    for (int attempt = 0; attempt < 6 && !sessionGlobals; ++attempt)
        sessionGlobals = static_cast<php_ps_globals*>(dlsym(RTLD_DEFAULT, "ps_globals"));
    return sessionGlobals != nullptr;
}

bool vesk_wrap_session_function(const char* name)
{
    if (!savedHandlers) {
        savedHandlers = static_cast<HashTable*>(pemalloc(sizeof(HashTable), 1));
        zend_hash_init(savedHandlers, 10, nullptr, nullptr, 1);
    }
    zend_function* function =
        static_cast<zend_function*>(zend_hash_str_find_ptr(CG(function_table), name, strlen(name)));
    if (!function || function->type != ZEND_INTERNAL_FUNCTION)
        return false;
    if (function->internal_function.handler != functionWrapper) {
        zend_hash_str_update_ptr(savedHandlers, name, strlen(name),
                                 reinterpret_cast<void*>(function->internal_function.handler));
        function->internal_function.handler = functionWrapper;
    }
    return true;
}

void vesk_wrap_session_request_startup(const VeskSessionCallbacks* sessionCallbacks)
{
    callbacks = sessionCallbacks;
    if (sessionModule && sessionModule->request_startup_func != requestStartupWrapper) {
        savedRequestStartup = sessionModule->request_startup_func;
        sessionModule->request_startup_func = requestStartupWrapper;
    }
}

void vesk_restore_session_module()
{
    // The wrapped functions keep their wrapper: it finds their handlers in
    // the table, which lives as long as the process.
    if (sessionModule && sessionModule->request_startup_func == requestStartupWrapper)
        sessionModule->request_startup_func = savedRequestStartup;
}

int vesk_session_status()
{
    return sessionGlobals ? int(sessionGlobals->session_status) : 0;
}

size_t vesk_output_end_top()
{
    zval length;
    const size_t held = php_output_get_length(&length) == SUCCESS ? size_t(Z_LVAL(length)) : 0;
    php_output_end();
    return held;
}
