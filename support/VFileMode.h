#pragma once

#include <QByteArray>

#include <sys/types.h>

// The mode of the files the cache makes that hold pages or what visitors
// asked for (records, published pages, the log, the databases): the
// workers' user and group only, whatever the umask, unless the operator
// widens it (the directive vesk.file_mode, in octal).
class VFileMode
{
public:
    static const mode_t Default = 0640;

    static mode_t files();
    // Takes an octal mode such as "0644"; anything else keeps the default.
    static void set(const QByteArray& octal);
    // Gives the file this process has just made the mode.
    static void apply(int fd);
};
