#include "QueryLearning.h"

#include "GlobalDirectives.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "PageTags.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "CacheRule.h"
#include "LearnedTags.h"
#include "SqlStatement.h"
#include "VException.h"
#include "VHTMLCache.h"

#include <QFile>
#include <QSet>
#include <QStringList>

#include <memory>
#include <unistd.h>

namespace {

// Past this many learned tags a page holds the one that stands for all it
// may have read: more would say nothing more, and would grow its record.
const int MaxLearnedTags = 64;
// A statement longer than this is not read word by word (a bulk import).
const size_t MaxReadLength = size_t(1) << 26;

bool watching = false;

// What one request has learned so far.
struct Learning
{
    bool explicitTransaction = false;
    bool autocommitOff = false;
    // Removals that wait for their transaction's commit.
    QSet<QString> pending;
    // The learned tags the page holds so far.
    QSet<QString> pageTags;
};
Learning learning;

// The command line has no cache of its own: its rules are read once for
// the key columns and ignore lists that every writer needs.
std::unique_ptr<RulesFileReader> commandLineRules;

const RulesFileReader* rules()
{
    if (moduleState.enabled)
        return VHTMLCache::instance();
    return commandLineRules.get();
}

void learnRead(const SqlStatement& statement)
{
    const RequestState& r = requestState;
    // Once the script has ended the capture, its page is whole: what it
    // reads after (deferred updates, a job queue run at the end of a view)
    // builds nothing of the page, and as its tags it would only let that
    // work's own writes refuse the page.
    if (!r.buffering || r.captureEndedByScript || !r.rule || !r.rule->d->learn)
        return;
    const QByteArray mark = r.rule->d->learnIgnored.mark();
    const QString everything = LearnedTags::everything(mark);
    if (learning.pageTags.contains(everything))
        return;
    QSet<QString> fresh = LearnedTags::read(statement, mark) - learning.pageTags;
    if (fresh.isEmpty())
        return;
    if (learning.pageTags.size() + fresh.size() > MaxLearnedTags) {
        // The tag of all that was read, and the one of a page that learned.
        QSet<QString> coarse{everything};
        for (const QString& tag : qAsConst(fresh)) {
            if (!tag.contains(QLatin1Char(':')))
                coarse.insert(tag);
        }
        fresh = coarse;
    }
    learning.pageTags += fresh;
    const QStringList tags = fresh.values();
    // Joined only for a log that shows it: this runs for every query.
    if (VDebug::sinkLevel(moduleState.logStream) >= 5)
        VLOG(moduleState.logStream, 5) << "Learned tags:" << tags.join(QLatin1Char(' '));
    addPageTags(tags);
}

void remove(const QSet<QString>& tags)
{
    if (tags.isEmpty())
        return;
    const QStringList list = tags.values();
    const int removed = removePagesByTags(list, true);
    if (VDebug::sinkLevel(moduleState.logStream) >= 3)
        VLOG(moduleState.logStream, 3) << "Removed pages by learned tags:" << removed << list.join(QLatin1Char(' '));
}

void learnWrite(const SqlStatement& statement, const RulesFileReader& rules)
{
    if (statement.writes.isEmpty() && !statement.writesAnything)
        return;
    const QSet<QString> tags = LearnedTags::removed(statement, rules.learnLists());
    if (learning.explicitTransaction || learning.autocommitOff)
        learning.pending += tags;
    else
        remove(tags);
}

void control(int what)
{
    switch (what) {
    case SqlStatement::Begin:
        learning.explicitTransaction = true;
        return;
    case SqlStatement::AutocommitOff:
        learning.autocommitOff = true;
        return;
    case SqlStatement::Rollback:
        learning.explicitTransaction = false;
        learning.pending.clear();
        return;
    case SqlStatement::Commit:
    case SqlStatement::AutocommitOn:
        learning.explicitTransaction = false;
        learning.autocommitOff = learning.autocommitOff && what == SqlStatement::Commit;
        remove(learning.pending);
        learning.pending.clear();
        return;
    }
}

void onStatement(const char* sql, size_t length, bool mysql, bool succeeded)
{
    const RulesFileReader* known = rules();
    if (!succeeded || !known)
        return;
    try {
        SqlStatement statement;
        if (sql && length <= MaxReadLength)
            statement = SqlStatement::read(QByteArray::fromRawData(sql, int(length)), known->learnKeys(), mysql);
        else
            statement.readsAnything = statement.writesAnything = true;
        if (statement.readsAnything && VDebug::sinkLevel(moduleState.logStream) >= 5)
            VLOG(moduleState.logStream, 5) << "Query read as reading anything:"
                                           << QByteArray(sql, int(qMin<size_t>(length, 200)));
        learnRead(statement);
        learnWrite(statement, *known);
        control(statement.control);
    } catch (const std::exception& e) {
        VLOG(moduleState.logStream, 0) << "Learning from a query failed:" << e.what();
    }
}

void onTransaction(int what, bool succeeded)
{
    if (!succeeded)
        return;
    try {
        control(what);
    } catch (const std::exception& e) {
        VLOG(moduleState.logStream, 0) << "Learning from a transaction failed:" << e.what();
    }
}

const VeskQueryCallbacks callbacks = {&watching, onStatement, onTransaction};

static_assert(VeskBegin == int(SqlStatement::Begin) && VeskCommit == int(SqlStatement::Commit)
                  && VeskRollback == int(SqlStatement::Rollback)
                  && VeskAutocommitOff == int(SqlStatement::AutocommitOff)
                  && VeskAutocommitOn == int(SqlStatement::AutocommitOn),
              "transaction controls differ");

// Answers false, with the reason in the log, when the command line's
// writes can't remove pages.
bool readCommandLineRules()
{
    const VDebug::StreamId log = moduleState.logStream;
    if (geteuid() == 0 && httpdUid() != 0) {
        VLOG(log, 1) << "Vesk Page Cache doesn't learn from a CLI run as root: it works as the workers' user"
                     << httpdUid() << "only";
        return false;
    }
    QFile file(QString::fromUtf8(resolvePath(pageCacheConfig.dependencies_file, ConfDirBase)));
    std::unique_ptr<RulesFileReader> reader(new RulesFileReader);
    try {
        if (!file.open(QIODevice::ReadOnly))
            throw VException(QStringLiteral("Failed to open Rules File: %1").arg(file.fileName()));
        reader->setDevice(&file);
        reader->parse();
    } catch (const VException& e) {
        VLOG(log, 0) << "Vesk Page Cache doesn't learn from this CLI run:" << e.what();
        return false;
    }
    commandLineRules = std::move(reader);
    return true;
}

} // namespace

bool installQueryLearning(bool web)
{
    watching = false;
    if (!web && (!pageCacheConfig.learn_cli || !readCommandLineRules()))
        return false;
    const int calls = vesk_watch_queries(&callbacks);
    watching = calls > 0;
    VLOG(moduleState.logStream, 3) << "Database calls watched:" << calls;
    return watching;
}

void queryLearningRequestEnds()
{
    if (!watching)
        return;
    // A transaction left open may have been committed by the connection's
    // end: its pages go, to be safe.
    try {
        remove(learning.pending);
    } catch (const std::exception& e) {
        VLOG(moduleState.logStream, 0) << "Learning at request end failed:" << e.what();
    }
    learning = Learning();
    vesk_forget_prepared();
}

int learnedTagCount()
{
    return learning.pageTags.size();
}
