#pragma once

#include <QByteArray>
#include <QLinkedList>

// Response header lines ("Name: value") as the engine keeps them: names
// compared without regard to case, a line belonging to a name when the
// name is followed by its colon.
namespace VHeaderLines {

// Whether `line` is a header of that name.
bool hasName(const QByteArray& line, const char* name);
// The value of the first line of that name, blanks trimmed; null if none.
QByteArray value(const QLinkedList<QByteArray>& lines, const char* name);
// Drops every line of that name.
void removeName(QLinkedList<QByteArray>& lines, const char* name);
// Whether `line` is a Content-Encoding of gzip.
bool isGzipEncoding(const QByteArray& line);

// The list after the engine did the same: Add appends, Replace first drops
// the lines of the name, Delete drops the lines of `text` (a bare name),
// DeleteAll empties the list.
enum class Op { Add, Replace, Delete, DeleteAll };
void apply(QLinkedList<QByteArray>& lines, Op op, const QByteArray& text);

// Makes the response vary on `token` as well: added to the application's
// own Vary line when there is one, a Vary line of its own otherwise.
void addVary(QLinkedList<QByteArray>& lines, const char* token);

} // namespace VHeaderLines
