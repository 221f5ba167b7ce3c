#pragma once
// zmeta: reads, checks, compares and converts the flat form of a metadata container. The
// parts of the tool share this header; main.cpp holds the command line.
//
// The tool reads a form's bytes itself, after checkFlatMetadata accepted them, rather than
// through a rebuilt IMetadata: a rebuild folds a repeated tag into one row and turns a row
// without content into an untyped entry, and `json` must say exactly what the bytes hold so
// that `from-json` can give the same bytes back.
#include <zorcam/metadata/MetadataTypes.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zmeta {

// An error that ends the command with exit code 2 and this one line on standard error.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

//------------------------------------------------------------------------------------------
// Tags and types by name (Tags.cpp). The tables are generated at build time.
struct TagName {
    uint32_t tag;
    const char* name;
};
extern const TagName kTagNames[];
extern const size_t kTagNameCount;

struct SampleRow {
    uint32_t tag;
    const char* type;  // a type name as typeByName reads it
    uint32_t count;
};
extern const SampleRow kSampleRequest[];
extern const size_t kSampleRequestCount;

const char* tagName(uint32_t tag);  // the Android name, or null
// "0x00080002", "524290" or "android.lens.focalLength"; false when it is none of these.
bool parseTag(std::string_view text, uint32_t& tag);
// A comma-separated list of tags, as -t takes it; throws Failure naming the bad item.
std::vector<uint32_t> parseTagList(const std::vector<std::string>& items);
void appendHex32(std::string& out, uint32_t value);  // "0x0008000a"

// A type's printed name: kTypeFacts' short name, "untyped" for -1, "type12" for others.
std::string typeName(int32_t code);
// A short name ("rect") or a header name without its prefix ("MRect"), or "untyped".
bool typeByName(std::string_view name, int32_t& code);

//------------------------------------------------------------------------------------------
// A checked form, read into rows that point into the caller's buffer (Form.cpp).
struct Span {
    const uint8_t* data = nullptr;
    size_t size = 0;
};

struct Form;

struct Row {
    uint32_t tag = 0;
    bool hasContent = false;  // false: a record of length 0
    int32_t type = -1;
    uint32_t count = 0;
    Span payload;                               // basic types: count x element size bytes
    std::vector<Span> blobs;                    // TYPE_Memory: one per element
    std::vector<std::unique_ptr<Form>> nested;  // TYPE_IMetadata: null for an empty slot
    size_t spare = 0;  // bytes of the record after its content, which receivers skip
};

struct Form {
    std::vector<Row> rows;
    // Bytes after the storage block that receivers ignore: in the element's slot for a
    // nested container, in the buffer for the outermost one.
    size_t spare = 0;
};

// Reads bytes that checkFlatMetadata accepted. Every read is still bounded: should the
// check and this reader ever disagree, the result is a Failure, not a wild read.
std::unique_ptr<Form> readForm(const uint8_t* data, size_t size);
// The row a receiver keeps for `tag` (the last of repeated ones), or null.
const Row* findRow(const Form& form, uint32_t tag);
// Same entries by tag, bit for bit (a repeated tag's n-th row against the other's n-th).
bool sameRows(const Row& a, const Row& b);

//------------------------------------------------------------------------------------------
// Text (Text.cpp). Output goes to a string that the caller writes out.
void appendFloat(std::string& out, float value, bool json);
void appendDouble(std::string& out, double value, bool json);
// One element of a basic type, as a dump shows it or as JSON holds it.
void appendElement(std::string& out, int32_t type, const uint8_t* element, bool json);

// One line per row (rows whose tag is in `only`, when it is not empty), nested containers
// indented below their entry.
void dumpForm(std::string& out, const Form& form, const std::vector<uint32_t>& only,
              int indent = 0);
// The values of one row, one a line (blobs whole, nested containers as dumps).
void printValues(std::string& out, const Row& row);
// Entries only in a, only in b, and changed; false when there is no difference.
bool diffForms(std::string& out, const Form& a, const Form& b, int indent = 0);

//------------------------------------------------------------------------------------------
// JSON (Json.cpp).
void writeJson(std::string& out, const Form& form, const std::vector<uint32_t>& only);
// The flat form of a document that writeJson wrote or a person edited; throws Failure
// with the JSON path of what it cannot read.
std::vector<uint8_t> formFromJson(std::string_view text);

//------------------------------------------------------------------------------------------
// The sample capture request, flattened by the library (Sample.cpp).
std::vector<uint8_t> sampleForm();

}  // namespace zmeta
