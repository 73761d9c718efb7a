#pragma once

// Learning what a page depends on from the queries that build it, and
// removing the pages of what a request writes once the write commits.

// Module start-up: watches the database calls when pages learn (`web`, a
// run that caches) or when the operator lets the command line's writes
// remove pages (vesk_pagecache.learn_cli). Answers whether it watches.
bool installQueryLearning(bool web);
// Request end: writes of a transaction still open count as done.
void queryLearningRequestEnds();
// How many tags the page this request builds has learned so far.
int learnedTagCount();
