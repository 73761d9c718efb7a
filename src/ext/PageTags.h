#pragma once

#include <QStringList>

// Adds tags to the page the current request is building; does nothing outside a miss whose output is captured.
void addPageTags(const QStringList &tags);
// Ends every stored page (and its published files) holding one of `tags`, on this node, and on every node of the farm when `cluster` is true; works in any request and on the command line. Returns the number of pages ended here.
int removePagesByTags(const QStringList &tags, bool cluster);
