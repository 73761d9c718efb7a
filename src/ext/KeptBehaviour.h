#pragma once

// What the extension does only because the programs around it expect it
// exactly so. Each item would look like a slip where it is used; here each
// carries the reason it stays.

namespace kept {

// The engine records the file and line a bailout names. The page cache's
// early end of a request names these fixed ones, whatever file the code
// lives in now, so that its reports read as they always have.
constexpr const char* BailoutFile = "src/ext/7.0/htmlcache_ext";
// A hit found once the session has started ends the running script.
constexpr int SessionHitBailoutLine = 1375;
// A hit found at request start ends the request as its first script compiles.
constexpr int CompileStubBailoutLine = 767;

// Jobs of the task daemon must never be answered from the cache. This
// build never runs inside the daemon, so the answer is fixed; request start
// and end still ask first, so a build that does keeps the test in its place.
constexpr bool daemonMode = false;

// A request the developer toolbar collects for must run its script: a
// stored page would leave the toolbar with nothing to show.
bool toolbarCollecting();

// A running session of the Vesk debugger keeps its request uncached. When
// no debugger is loaded its slot reads 0 and word 0 is tested all the same:
// an engine extension using that slot switches the cache off too. The
// two cases aren't told apart, and the cache has always stayed off in both.
bool debuggerSessionRunning();

// The statistics switch of the record channel. Its key is looked up with
// the terminating zero counted in its length, as the statistics component
// registers it, so a table keyed by the plain name never finds it and the
// channel stays shut.
bool pageCacheStatisticsEnabled();

} // namespace kept
