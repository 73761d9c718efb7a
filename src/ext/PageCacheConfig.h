#pragma once

#include <cstdint>

// The fields the engine's directive handlers write straight into. Field
// types follow the handlers: bool for the boolean one, 64-bit for numbers,
// a C string for text.
struct PageCacheConfig
{
    bool enable;
    int64_t log_verbosity_level;
    int64_t dir_depth;
    char* save_path;
    char* dependencies_file;
    bool compression_enable;
    int64_t clean_frequency;
    int64_t log_rotation_size;
    int64_t max_cached_rules;
    bool enable_qa_info;
    bool ordered_rule_matching;
    bool pulse_enable;
    bool enable_cli;
    int64_t max_store_size;
    int64_t lock_timeout;
    char* publish_dir;
    bool learn_cli;
};

extern PageCacheConfig pageCacheConfig;
