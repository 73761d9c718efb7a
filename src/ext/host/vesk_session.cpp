// Hooks into the session module: its request start, and the functions that
// start a session.

#include "php.h"
#include "php_output.h"
#include "ext/session/php_session.h"

#include "vesk_hook.h"
#include "vesk_host.h"

#include <dlfcn.h>
#include <string>
#include <vector>

namespace {

zend_module_entry* sessionModule = nullptr;
php_ps_globals* sessionGlobals = nullptr;
const VeskSessionCallbacks* callbacks = nullptr;

zend_result requestStartupWrapper(int type, int moduleNumber);
void functionWrapper(INTERNAL_FUNCTION_PARAMETERS);

VeskHook<decltype(zend_module_entry::request_startup_func)> requestStartupSlot(requestStartupWrapper);

// Each wrapped function with the handler it had; kept for the life of the
// process, as the functions keep their wrapper.
struct WrappedFunction
{
    std::string name;
    VeskHook<zif_handler> hook;
};
std::vector<WrappedFunction>* wrappedFunctions = nullptr;

zif_handler originalHandler(const char* name)
{
    if (!name || !wrappedFunctions)
        return nullptr;
    for (const WrappedFunction& function : *wrappedFunctions) {
        if (function.name == name)
            return function.hook.original();
    }
    return nullptr;
}

zend_result requestStartupWrapper(int type, int moduleNumber)
{
    if (callbacks)
        callbacks->requestStartupBegins();
    const auto original = requestStartupSlot.original();
    const zend_result result = original ? original(type, moduleNumber) : SUCCESS;
    if (callbacks)
        callbacks->requestStartupEnds();
    return result;
}

void functionWrapper(INTERNAL_FUNCTION_PARAMETERS)
{
    const char* name = get_active_function_name();
    const int before = vesk_session_status();
    const zif_handler handler = originalHandler(name);
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
    if (!wrappedFunctions)
        wrappedFunctions = new std::vector<WrappedFunction>;
    zend_function* function =
        static_cast<zend_function*>(zend_hash_str_find_ptr(CG(function_table), name, strlen(name)));
    if (!function || function->type != ZEND_INTERNAL_FUNCTION)
        return false;
    WrappedFunction* wrapped = nullptr;
    for (WrappedFunction& known : *wrappedFunctions) {
        if (known.name == name)
            wrapped = &known;
    }
    if (!wrapped) {
        wrappedFunctions->push_back(WrappedFunction{name, VeskHook<zif_handler>(functionWrapper)});
        wrapped = &wrappedFunctions->back();
    }
    wrapped->hook.install(function->internal_function.handler);
    return true;
}

void vesk_wrap_session_request_startup(const VeskSessionCallbacks* sessionCallbacks)
{
    callbacks = sessionCallbacks;
    if (sessionModule)
        requestStartupSlot.install(sessionModule->request_startup_func);
}

void vesk_restore_session_module()
{
    // The wrapped functions keep their wrapper: it finds their handlers in
    // the list, which lives as long as the process.
    if (sessionModule)
        requestStartupSlot.restore(sessionModule->request_startup_func);
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
