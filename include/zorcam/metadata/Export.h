#pragma once
// ZORCAM_EXPORT marks what libzorcam_metadata exports: the library is compiled with
// -fvisibility=hidden, so a declaration without it stays inside the library (diagnostics,
// flat-form cursors, the slot map and the text writer are not ABI). On a class it exports
// the members and the nested classes with it. abi/ holds the resulting list; a change to it
// is an ABI change (see scripts/abi.sh).
//
// Consumers see the same attribute, which is harmless on a declaration they import.
#define ZORCAM_EXPORT __attribute__((visibility("default")))
// ZORCAM_LOCAL keeps a declaration inside the library although its class is exported: the
// library's own operations on its exported classes, whose names a caller never needs.
#define ZORCAM_LOCAL __attribute__((visibility("hidden")))
