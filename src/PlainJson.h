// How a message body's JSON text is read and written (internal to the
// library): JsonCpp's reader and compact writer, set up once per thread,
// and in front of them a plain reader and writer for the common case of a
// body, which give JsonCpp's results without its machinery.
//
// The plain reader and writer reproduce JsonCpp's results exactly (tree,
// number types, offsets, error-free text), but only for the JsonCpp
// versions the comparison tests were run against: other versions type some
// integers differently, or write other text. They are compiled in only
// when the JsonCpp headers say one of those versions and the build does not
// turn them off (CMake option HARVO_JSON_FAST_PATHS=OFF, which defines
// HARVO_JSON_FAST_PATHS=0); otherwise JsonCpp reads and writes every body.
//
// To add a JsonCpp version: add it to HARVO_JSONCPP_PROVEN below and to
// HARVO_JSON_PROVEN_VERSIONS in src/CMakeLists.txt, then run the tests
// internal_plain_json_read_test and internal_plain_json_write_test and
// the body fuzzer (scripts/fuzz.sh body) against it.
//
// Thread-affinity: every function may be called from any thread; each
// thread keeps its own JsonCpp reader and writer.
#ifndef HARVO_FW_SRC_PLAINJSON_H
#define HARVO_FW_SRC_PLAINJSON_H

#include <json/json.h>
#include <json/version.h>

#include <string>

#ifndef HARVO_JSON_FAST_PATHS
#define HARVO_JSON_FAST_PATHS 1
#endif

// The JsonCpp versions the plain reader and writer are proven against.
#define HARVO_JSONCPP_PROVEN(major, minor, patch) ((major) == 1 && (minor) == 9 && (patch) == 5)

#if HARVO_JSONCPP_PROVEN(JSONCPP_VERSION_MAJOR, JSONCPP_VERSION_MINOR, JSONCPP_VERSION_PATCH)
#define HARVO_PLAIN_JSON_PROVEN 1
#else
#define HARVO_PLAIN_JSON_PROVEN 0
#endif

#if HARVO_JSON_FAST_PATHS && HARVO_PLAIN_JSON_PROVEN
#define HARVO_PLAIN_JSON 1
#else
#define HARVO_PLAIN_JSON 0
#endif

namespace Quelt {
namespace detail {

/* True when this build reads and writes plain bodies itself. */
constexpr bool kPlainJsonEnabled = HARVO_PLAIN_JSON != 0;

/* Reads a body text (all of |begin|..|end|, NUL bytes included) into
 * |root| the way JsonCpp's reader does with comments dropped: plain texts
 * through ReadPlainJson, the rest through JsonCpp. On success |errors| is
 * empty; on failure |root| is left as the reader leaves it (the caller
 * resets it) and |errors| holds the reader's error text. Input beyond the
 * reader's limits (nesting depth) is a failure with the reader's message,
 * never an exception. */
bool ReadJson(const char* begin, const char* end, Json::Value& root, std::string& errors);

/* The compact one-line text of |value| as JsonCpp's compact writer makes
 * it (no comments): plain trees through WritePlainJson, the rest through
 * the writer. */
std::string WriteCompactJson(const Json::Value& value);

/* The plain reader: reads the common case of a body the way the JsonCpp
 * reader reads it, into the same tree (payload and offsets of |root|, whose
 * comments stay). Objects, arrays, numbers written without leading zeros
 * (integers of up to 18 digits; others finite and of fewer than 64
 * characters), true, false, null and strings of printable ASCII without
 * escapes, with blanks between tokens, and nothing after the root value but
 * blanks. Anything else (a comment, an escape, a number of another form, a
 * trailing comma, a repeated key, trailing text, more than 64 levels)
 * answers false and leaves |root| untouched, for the reader to parse with
 * its own results and error texts. Always false when kPlainJsonEnabled is
 * false. */
bool ReadPlainJson(const char* begin, const char* end, Json::Value& root);

/* The plain writer: appends the compact writer's text of |value| to |out|
 * for trees of objects, arrays, numbers, booleans, nulls and strings that
 * need no escape, up to 64 levels. Anything else answers false, and |out|
 * is then to be discarded. Always false when kPlainJsonEnabled is false. */
bool WritePlainJson(const Json::Value& value, std::string& out);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_PLAINJSON_H
