#pragma once

#include <QString>

// Validates a rules file with Xerces-C against pagecache_rules_schema.xsd
// beside it. False with the reason in `error`; a warning of the parser and
// a document type declaration fail it too.
// `atStartup` names the occasion in a validation error: the server's start-up,
// or a worker's reload of a file that changed.
bool validateRulesFileAgainstSchema(const char* rulesFile, QString& error, bool atStartup = true);
