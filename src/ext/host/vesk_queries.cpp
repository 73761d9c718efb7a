// Watches the statements a script sends through mysqli and PDO: each
// watched function or method keeps its own handler, which runs first; when
// it returns and the watch is on, the callbacks hear what was sent and
// whether it succeeded.

#include "php.h"
#include "ext/pdo/php_pdo_driver.h"

#include "vesk_hook.h"
#include "vesk_host.h"

#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

enum class Kind
{
    Query, Prepare, PrepareOn, Construct, Execute, PdoQuery, PdoExecute, Begin, Commit, Rollback, Autocommit
};

struct Watched
{
    zend_function* function;
    VeskHook<zif_handler> hook;
    Kind kind;
};

struct Target
{
    const char* className; // null for a plain function
    const char* name;
    Kind kind;
};

const Target targets[] = {
    {nullptr, "mysqli_query", Kind::Query},           {nullptr, "mysqli_real_query", Kind::Query},
    {nullptr, "mysqli_multi_query", Kind::Query},     {nullptr, "mysqli_execute_query", Kind::Query},
    {nullptr, "mysqli_prepare", Kind::Prepare},       {nullptr, "mysqli_stmt_prepare", Kind::PrepareOn},
    {nullptr, "mysqli_stmt_execute", Kind::Execute},  {nullptr, "mysqli_execute", Kind::Execute},
    {nullptr, "mysqli_begin_transaction", Kind::Begin}, {nullptr, "mysqli_commit", Kind::Commit},
    {nullptr, "mysqli_rollback", Kind::Rollback},     {nullptr, "mysqli_autocommit", Kind::Autocommit},
    {"mysqli", "query", Kind::Query},                 {"mysqli", "real_query", Kind::Query},
    {"mysqli", "multi_query", Kind::Query},           {"mysqli", "execute_query", Kind::Query},
    {"mysqli", "prepare", Kind::Prepare},             {"mysqli", "begin_transaction", Kind::Begin},
    {"mysqli", "commit", Kind::Commit},               {"mysqli", "rollback", Kind::Rollback},
    {"mysqli", "autocommit", Kind::Autocommit},       {"mysqli_stmt", "__construct", Kind::Construct},
    {"mysqli_stmt", "prepare", Kind::PrepareOn},      {"mysqli_stmt", "execute", Kind::Execute},
    {"pdo", "query", Kind::PdoQuery},                 {"pdo", "exec", Kind::PdoQuery},
    {"pdo", "begintransaction", Kind::Begin},
    {"pdo", "commit", Kind::Commit},                  {"pdo", "rollback", Kind::Rollback},
    {"pdostatement", "execute", Kind::PdoExecute},
};

const VeskQueryCallbacks* callbacks = nullptr;
std::vector<Watched>* watched = nullptr;
// The text each prepared mysqli statement was made from, by object handle.
// (A PDO statement keeps its own.)
std::unordered_map<uint32_t, std::string>* prepared = nullptr;

void wrapper(INTERNAL_FUNCTION_PARAMETERS);

// The watched call being run. A class that extends PDO or mysqli gets its
// own copy of an inherited method, our handler included: that copy is found
// by its name and the class it came from.
const Watched* find(zend_function* function)
{
    for (const Watched& w : *watched) {
        if (w.function == function)
            return &w;
    }
    zend_class_entry* scope = function->common.scope;
    for (const Watched& w : *watched) {
        zend_class_entry* origin = w.function->common.scope;
        if (scope && origin && instanceof_function(scope, origin)
            && zend_string_equals(function->common.function_name, w.function->common.function_name))
            return &w;
    }
    return nullptr;
}

// The call's argument `n` (from 0) as text, or null.
zend_string* textArgument(zend_execute_data* execute_data, uint32_t n)
{
    if (n >= ZEND_NUM_ARGS())
        return nullptr;
    zval* value = ZEND_CALL_ARG(execute_data, n + 1);
    ZVAL_DEREF(value);
    return Z_TYPE_P(value) == IS_STRING ? Z_STR_P(value) : nullptr;
}

// The object a call works on: $this, or the first argument of a plain
// function.
zend_object* subject(zend_execute_data* execute_data)
{
    if (Z_TYPE(EX(This)) == IS_OBJECT)
        return Z_OBJ(EX(This));
    if (ZEND_NUM_ARGS() < 1)
        return nullptr;
    zval* value = ZEND_CALL_ARG(execute_data, 1);
    ZVAL_DEREF(value);
    return Z_TYPE_P(value) == IS_OBJECT ? Z_OBJ_P(value) : nullptr;
}

bool mysqlDriver(const pdo_dbh_t* dbh)
{
    return dbh && dbh->driver && dbh->driver->driver_name
           && strncmp(dbh->driver->driver_name, "mysql", dbh->driver->driver_name_len) == 0;
}

void statement(zend_string* sql, bool mysql, bool succeeded)
{
    callbacks->statement(sql ? ZSTR_VAL(sql) : nullptr, sql ? ZSTR_LEN(sql) : 0, mysql, succeeded);
}

void remember(zend_object* object, zend_string* sql)
{
    if (!object)
        return;
    if (sql)
        (*prepared)[object->handle] = std::string(ZSTR_VAL(sql), ZSTR_LEN(sql));
    else
        prepared->erase(object->handle);
}

// What a watched call did, heard after its own handler ran.
void report(const Watched& w, zend_execute_data* execute_data, zval* return_value, zend_string* sql)
{
    const bool succeeded = !EG(exception) && Z_TYPE_P(return_value) != IS_FALSE;
    const bool method = Z_TYPE(EX(This)) == IS_OBJECT;
    switch (w.kind) {
    case Kind::Query:
        return statement(sql, true, succeeded);
    case Kind::PdoQuery:
        return statement(sql, mysqlDriver(Z_PDO_DBH_P(&EX(This))), succeeded);
    case Kind::Prepare:
        if (succeeded && Z_TYPE_P(return_value) == IS_OBJECT)
            remember(Z_OBJ_P(return_value), sql);
        return;
    case Kind::PrepareOn:
    case Kind::Construct:
        return remember(subject(execute_data), succeeded ? sql : nullptr);
    case Kind::Execute: {
        zend_object* object = subject(execute_data);
        const auto it = object ? prepared->find(object->handle) : prepared->end();
        if (it == prepared->end())
            return callbacks->statement(nullptr, 0, true, succeeded);
        return callbacks->statement(it->second.data(), it->second.size(), true, succeeded);
    }
    case Kind::PdoExecute: {
        const pdo_stmt_t* stmt = Z_PDO_STMT_P(&EX(This));
        return statement(stmt->query_string, mysqlDriver(stmt->dbh), succeeded);
    }
    case Kind::Autocommit: {
        zval* on = ZEND_NUM_ARGS() > (method ? 0u : 1u) ? ZEND_CALL_ARG(execute_data, method ? 1 : 2) : nullptr;
        return callbacks->transaction(on && zend_is_true(on) ? VeskAutocommitOn : VeskAutocommitOff, succeeded);
    }
    case Kind::Begin:
        return callbacks->transaction(VeskBegin, succeeded);
    case Kind::Commit:
        return callbacks->transaction(VeskCommit, succeeded);
    case Kind::Rollback:
        return callbacks->transaction(VeskRollback, succeeded);
    }
}

void wrapper(INTERNAL_FUNCTION_PARAMETERS)
{
    const Watched* w = find(EX(func));
    if (!w || !w->hook.original())
        return;
    if (!callbacks || !*callbacks->watching)
        return w->hook.original()(execute_data, return_value);
    const bool method = Z_TYPE(EX(This)) == IS_OBJECT;
    // Taken, with a reference of its own, before the call can change it.
    zend_string* sql = textArgument(execute_data, method || w->kind == Kind::PdoQuery ? 0 : 1);
    if (w->kind == Kind::Construct)
        sql = textArgument(execute_data, 1);
    if (sql)
        zend_string_addref(sql);
    w->hook.original()(execute_data, return_value);
    report(*w, execute_data, return_value, sql);
    if (sql)
        zend_string_release(sql);
}

zend_function* lookUp(const Target& target)
{
    HashTable* table = CG(function_table);
    if (target.className) {
        auto* ce = static_cast<zend_class_entry*>(
            zend_hash_str_find_ptr(CG(class_table), target.className, strlen(target.className)));
        if (!ce)
            return nullptr;
        table = &ce->function_table;
    }
    auto* function = static_cast<zend_function*>(zend_hash_str_find_ptr(table, target.name, strlen(target.name)));
    return function && function->type == ZEND_INTERNAL_FUNCTION ? function : nullptr;
}

} // namespace

int vesk_watch_queries(const VeskQueryCallbacks* queryCallbacks)
{
    callbacks = queryCallbacks;
    if (!watched) {
        watched = new std::vector<Watched>;
        watched->reserve(sizeof(targets) / sizeof(targets[0]));
        prepared = new std::unordered_map<uint32_t, std::string>;
    }
    for (const Target& target : targets) {
        zend_function* function = lookUp(target);
        if (!function || find(function))
            continue;
        watched->push_back(Watched{function, VeskHook<zif_handler>(wrapper), target.kind});
        watched->back().hook.install(function->internal_function.handler);
    }
    return int(watched->size());
}

void vesk_forget_prepared()
{
    if (prepared)
        prepared->clear();
}
