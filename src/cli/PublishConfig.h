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

// nginx: the maps that test a request, for the http block, and the lines
// to include inside each of the site's locations where its page URLs arrive
// as sent, after its access rules.
QString nginxPublishMaps(const QList<CacheRule>& rules, const QByteArray& publishDir);
QString nginxPublishConfig(const QList<CacheRule>& rules, const QByteArray& publishDir);
// Apache (mod_rewrite, mod_headers, mod_alias and mod_env loaded): the
// rewrites, for the site's <Directory> or .htaccess, and the server's part,
// for the virtual host.
QString apacheRewriteConfig(const QList<CacheRule>& rules, const QByteArray& publishDir);
QString apachePublishConfig(const QByteArray& publishDir);
