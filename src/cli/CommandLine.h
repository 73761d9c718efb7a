#pragma once

#include <QStringList>

class QCommandLineParser;

// Parses a command's arguments, its name first (the counts are of the
// positional arguments after it), with the options and
// positional arguments already added to `parser`; `syntax` is
// what a wrong count is told. Answers false with the
// exit code in `code` after a one-line error; --help prints and exits.
bool parseCommand(QCommandLineParser& parser, const QStringList& args, int minPositional, int maxPositional,
                  const QString& syntax, int* code);
