#pragma once

#include "CacheRule.h"

#include <QList>
#include <QString>

// The web server's side of published pages, for the rules in force: a
// request is answered from a published file only when it is a GET or HEAD
// whose path as sent has no query and reads the same decoded, its cookies are plain (names of letters, digits, '_'
// and '-'), and the conditions of the file's rule hold as PHP would judge
// them; every other request goes on to PHP as before. Rules are tried in
// the workers' order of trial; a URL has a file under one rule at most.

// Lines to include in nginx's server block, ahead of its locations.
QString nginxPublishConfig(const QList<CacheRule>& rules, const QByteArray& publishDir);
// Lines to include in Apache's virtual host (mod_rewrite, mod_headers and
// mod_alias loaded).
QString apachePublishConfig(const QList<CacheRule>& rules, const QByteArray& publishDir);
