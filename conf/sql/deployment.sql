-- Deployed applications and libraries, written by the deployment tools. The
-- page cache only reads these tables; they are created here so that a fresh
-- database answers "no application" instead of failing.
CREATE TABLE IF NOT EXISTS deployment_apps_info (
    app_id INTEGER PRIMARY KEY,
    base_url TEXT,
    path TEXT,
    name TEXT,
    version TEXT,
    webserver_path TEXT
);
-- Five columns: the application lookup reads both tables through one union
-- of seven columns, a tag, these five and one empty column.
CREATE TABLE IF NOT EXISTS deployment_libs_info (
    lib_id INTEGER PRIMARY KEY,
    base_url TEXT,
    path TEXT,
    name TEXT,
    version TEXT
);
