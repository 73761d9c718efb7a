<?php
// Vesk Page Cache removal for MediaWiki: add
//     if (is_readable('/usr/share/vesk-pagecache/recipes/mediawiki-vesk-pagecache.php')) {
//         require_once '/usr/share/vesk-pagecache/recipes/mediawiki-vesk-pagecache.php';
//     }
// at the end of LocalSettings.php: the wiki keeps running once the package
// is removed. A page's change shows on other pages too
// (links to it turn from red to blue, categories list it), so all the pages
// stored under the "MediaWiki" rule go, once per request.
$vesk_pagecache_forget_pages = static function () {
    static $done = false;
    if ($done || !function_exists('page_cache_remove_cached_contents_by_rule')) {
        return;
    }
    $done = true;
    page_cache_remove_cached_contents_by_rule('MediaWiki');
};
// A restored page is told by ArticleUndelete up to MediaWiki 1.39, and by
// PageUndeleteComplete from 1.40 on.
foreach (['PageSaveComplete', 'PageDeleteComplete', 'ArticleUndelete', 'PageUndeleteComplete', 'PageMoveComplete',
          'ArticlePurge'] as $hook) {
    $wgHooks[$hook][] = $vesk_pagecache_forget_pages;
}
unset($vesk_pagecache_forget_pages);
