<?php
/*
 * Plugin Name: Vesk Page Cache removal
 * Description: Removes the pages stored under the "WordPress" and "WordPress
 *   icon" rules whenever content that shows on them changes. Copy it into
 *   wp-content/mu-plugins/.
 */

// A post, a comment, a menu or the theme can show on every page (lists of
// recent posts, comment counts, menus), so all of the rule's pages go, once
// per request however many hooks fire.
function vesk_pagecache_forget_pages()
{
    static $done = false;
    if ($done || !function_exists('page_cache_remove_cached_contents_by_rule')) {
        return;
    }
    $done = true;
    page_cache_remove_cached_contents_by_rule('WordPress');
    page_cache_remove_cached_contents_by_rule('WordPress icon');
}

foreach (['save_post', 'deleted_post', 'trashed_post', 'untrashed_post', 'comment_post', 'edit_comment',
          'wp_set_comment_status', 'switch_theme', 'customize_save_after', 'wp_update_nav_menu',
          'update_option_blogname', 'update_option_blogdescription'] as $hook) {
    add_action($hook, 'vesk_pagecache_forget_pages');
}
