#pragma once

// Tags on the page a request builds, and the removal of every page holding
// a tag: the one way in for the script functions, the rule's tags header
// and whatever else learns what a page depends on.

#include <QStringList>

// Adds tags to the page the current request is building; does nothing outside a miss whose output is captured.
void addPageTags(const QStringList &tags);
// Ends every stored page (and its published files) holding one of `tags`, on this node, and on every node of the farm when `cluster` is true; works in any request and on the command line. Returns the number of pages ended here.
int removePagesByTags(const QStringList &tags, bool cluster);

// The same two for the engine's words: `text` split on commas and blanks.
void addPageTagsFrom(const QByteArray& text);
// Whether a header line is the page's tags header, which neither goes out
// nor is stored; its tags go to the page.
bool takeTagsHeader(const char* text, size_t length);
