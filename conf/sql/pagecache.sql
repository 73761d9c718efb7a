-- The page cache's own database: purge rules, written by every worker of a
-- server and read back when the file's date moves. The column order is part
-- of the format: rows are read by position.
CREATE TABLE IF NOT EXISTS pagecache_purge_rules (
    id INTEGER PRIMARY KEY,
    name TEXT,
    rule_creation_time INTEGER,
    application_name TEXT
);
CREATE TABLE IF NOT EXISTS pagecache_purge_urls (
    id INTEGER PRIMARY KEY,
    rule_id INTEGER,
    url TEXT,
    url_hash BLOB
);
CREATE TABLE IF NOT EXISTS pagecache_purge_urls_regexes (
    id INTEGER PRIMARY KEY,
    rule_id INTEGER,
    regex TEXT,
    regex_hash BLOB
);
CREATE TABLE IF NOT EXISTS pagecache_purge_creation_time (
    id INTEGER PRIMARY KEY,
    rule_id INTEGER,
    creation_time INTEGER
);
CREATE TABLE IF NOT EXISTS pagecache_purge_response_headers (
    id INTEGER PRIMARY KEY,
    rule_id INTEGER,
    name TEXT,
    op TEXT,
    value TEXT
);
