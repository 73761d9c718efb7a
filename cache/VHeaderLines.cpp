#include "VHeaderLines.h"

#include <QList>
#include <cstring>
#include <strings.h>

namespace VHeaderLines {

namespace {

bool hasName(const QByteArray& line, const char* name, size_t length)
{
    return size_t(line.size()) > length && line.at(int(length)) == ':'
           && strncasecmp(line.constData(), name, length) == 0;
}

} // namespace

bool hasName(const QByteArray& line, const char* name)
{
    return hasName(line, name, strlen(name));
}

QByteArray value(const QLinkedList<QByteArray>& lines, const char* name)
{
    const size_t length = strlen(name);
    for (const QByteArray& line : lines) {
        if (hasName(line, name, length))
            return line.mid(int(length) + 1).trimmed();
    }
    return QByteArray();
}

void removeName(QLinkedList<QByteArray>& lines, const char* name)
{
    const size_t length = strlen(name);
    for (auto it = lines.begin(); it != lines.end();) {
        if (hasName(*it, name, length))
            it = lines.erase(it);
        else
            ++it;
    }
}

bool isGzipEncoding(const QByteArray& line)
{
    if (!hasName(line, "Content-Encoding"))
        return false;
    const QByteArray coding = line.mid(int(strlen("Content-Encoding:"))).trimmed().toLower();
    return coding == "gzip" || coding == "x-gzip";
}

void apply(QLinkedList<QByteArray>& lines, Op op, const QByteArray& text)
{
    switch (op) {
    case Op::Add:
        lines.append(text);
        break;
    case Op::Replace: {
        const int colon = text.indexOf(':');
        if (colon > 0)
            removeName(lines, text.left(colon).constData());
        lines.append(text);
        break;
    }
    case Op::Delete:
        removeName(lines, text.constData());
        break;
    case Op::DeleteAll:
        lines.clear();
        break;
    }
}

void addVary(QLinkedList<QByteArray>& lines, const char* token)
{
    QByteArray* first = nullptr;
    for (QByteArray& line : lines) {
        if (!hasName(line, "Vary"))
            continue;
        for (const QByteArray& item : line.mid(int(strlen("Vary:"))).split(',')) {
            const QByteArray name = item.trimmed();
            if (name == "*" || strcasecmp(name.constData(), token) == 0)
                return;
        }
        first = first ? first : &line;
    }
    if (!first) {
        lines.append(QByteArray("Vary: ") + token);
        return;
    }
    *first += first->trimmed().endsWith(':') ? " " : ", ";
    *first += token;
}

} // namespace VHeaderLines
