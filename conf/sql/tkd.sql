-- The task daemon's queue. A worker appends one row per task; the daemon
-- takes rows in id order, carries each out on the other nodes of the cluster
-- and then sets `status` (0 waiting, 1 taken, 2 done, 3 failed).
--
--   type                 the task's number (76 remove everything, 77 by URI,
--                        79 by rule name, 80 by rule ids, 81 by URL pattern)
--   payload              a JSON array: the PHP function's name, then its
--                        arguments, to be called with the cluster flag off
--   other_nodes_only     1 when the node that queued it has done its part
--   server               the node id of the server that queued it
--   webserver            that server's web server type
--   created              Unix seconds
CREATE TABLE IF NOT EXISTS tkd_tasks (
    id INTEGER PRIMARY KEY,
    type INTEGER NOT NULL,
    payload TEXT NOT NULL,
    other_nodes_only INTEGER NOT NULL,
    server INTEGER NOT NULL,
    webserver TEXT,
    created INTEGER NOT NULL,
    status INTEGER NOT NULL DEFAULT 0
);
