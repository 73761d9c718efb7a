#pragma once

// What keeps a covered request's page private: the request's credentials,
// a Host port the client chose, cookies its rule doesn't account for, and
// the pages php-fpm answers itself.

#include <QByteArray>

class CacheRule;

// Sets the request's site. True, having told the client why, when the
// cache must stay out of the request: it carries credentials (and `rule`
// doesn't take such pages), or its Host names a port other than the one
// the server answered on.
bool keptPrivate(const CacheRule& rule);
// Whether the request carries credentials, or the server authenticated it.
bool hasCredentials();
// "cookie NAME" for the first cookie of the request that `rule` doesn't
// account for, NAME escaped and cut short; null when there is none.
QByteArray unaccountedCookie(const CacheRule& rule);
// "cookie NAME" for the request's first cookie, whatever its rule says;
// null when it has none.
QByteArray anyCookie();
// Whether this is a request for php-fpm's status or ping path, which
// php-fpm answers itself once the request has started.
bool isFpmOwnPage();
