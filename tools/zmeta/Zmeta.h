#pragma once
// zmeta: reads, checks, compares and converts the flat form of a metadata container and the
// Android framework's camera metadata packets. The parts of the tool share this header;
// main.cpp holds the command line.
//
// The tool reads a form's bytes itself, after checkFlatMetadata accepted them, rather than
// through a rebuilt IMetadata: a rebuild folds a repeated tag into one row and turns a row
// without content into an untyped entry, and `json` must say exactly what the bytes hold so
// that `from-json` can give the same bytes back. A packet is read the same way, entry by
// entry after checkAndroidPacket accepted it, into the same rows (the packet's type codes
// are the container's for the same values).
#include <zorcam/metadata/MetadataTypes.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
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
// Text on its way out. Given a stream, it is written out in chunks as it grows, so that the
// dump of a 64 MiB form never holds all its text at once (and pays no page faults for it).
class Out {
public:
    explicit Out(FILE* stream = nullptr) : mStream(stream) {}
    Out& operator+=(char c) {
        mText += c;
        return *this;
    }
    Out& operator+=(std::string_view s) {
        mText.append(s);
        return *this;
    }
    void append(const char* p, size_t n) { mText.append(p, n); }
    void pad(int spaces) { mText.append(static_cast<size_t>(spaces), ' '); }
    // Room for `n` more characters, to be filled in place.
    char* grow(size_t n) {
        const size_t at = mText.size();
        mText.resize(at + n);
        return &mText[at];
    }
    // A point where the text may be written out; called between values and rows.
    void checkpoint() {
        if (mStream && mText.size() >= kChunk) flush();
    }
    void flush();  // writes what is held to the stream; throws Failure when it cannot
    const std::string& text() const { return mText; }

private:
    static constexpr size_t kChunk = 1 << 16;
    FILE* mStream;
    std::string mText;
};

//------------------------------------------------------------------------------------------
// Tags and types by name (Tags.cpp), from the platform's definitions in the packet bridge.

// One entry of the sample request (generated at build time from sample_request.tsv).
struct SampleRow {
    const char* name;    // the tag's Android name
    const char* values;  // separated by spaces; enumerated values by name
};
extern const SampleRow kSampleRequest[];
extern const size_t kSampleRequestCount;

const char* tagName(uint32_t tag);  // the Android name, or null
// "0x00080002", "524290" or "android.lens.focalLength"; false when it is none of these.
bool parseTag(std::string_view text, uint32_t& tag);
// A comma-separated list of tags, as -t takes it; throws Failure naming the bad item.
std::vector<uint32_t> parseTagList(const std::vector<std::string>& items);
void appendHex32(Out& out, uint32_t value);  // "0x0008000a"
std::string hexTag(uint32_t tag);

// A type's printed name: kTypeFacts' short name, "untyped" for -1, "type12" for others; in a
// packet, the platform's name ("byte").
std::string typeName(int32_t code, bool android = false);
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

// The header of an Android packet.
struct PacketHeader {
    uint32_t size = 0;
    uint32_t flags = 0;
    uint32_t entryCapacity = 0;
    uint32_t dataCount = 0;
    uint32_t dataCapacity = 0;
    uint64_t vendorId = UINT64_MAX;
};

struct Form {
    std::vector<Row> rows;
    // Bytes after the storage block that receivers ignore: in the element's slot for a
    // nested container, in the buffer for the outermost one (after a packet's size).
    size_t spare = 0;
    bool android = false;  // a packet: rows of the platform's types, and its header
    PacketHeader packet;
};

// Reads bytes that checkFlatMetadata accepted. Every read is still bounded: should the
// check and this reader ever disagree, the result is a Failure, not a wild read.
std::unique_ptr<Form> readForm(const uint8_t* data, size_t size);
// Reads a packet that checkAndroidPacket accepted, entry by entry, repeated tags and all.
std::unique_ptr<Form> readPacket(const uint8_t* data, size_t size);
// The row a receiver keeps for `tag` (the last of repeated ones), or null.
const Row* findRow(const Form& form, uint32_t tag);
// Same entries by tag, bit for bit (a repeated tag's n-th row against the other's n-th).
bool sameRows(const Row& a, const Row& b);

//------------------------------------------------------------------------------------------
// Text (Text.cpp). Output goes to a string that the caller writes out.
void appendFloat(Out& out, float value, bool json);
void appendDouble(Out& out, double value, bool json);
void appendHexBytes(Out& out, const uint8_t* bytes, size_t size);
// One element of a basic type, as a dump shows it or as JSON holds it.
void appendElement(Out& out, int32_t type, const uint8_t* element, bool json);

// One line per row (rows whose tag is in `only`, when it is not empty), nested containers
// indented below their entry.
void dumpForm(Out& out, const Form& form, const std::vector<uint32_t>& only, int indent = 0);
// The values of one row, one a line (blobs whole, nested containers as dumps).
void printValues(Out& out, const Row& row);
// Entries only in a, only in b, and changed; false when there is no difference.
bool diffForms(Out& out, const Form& a, const Form& b, int indent = 0);

// The first line of a packet's dump: its size, entries, data area, flags and vendor id.
void appendPacketHeader(Out& out, const Form& form);

//------------------------------------------------------------------------------------------
// JSON (Json.cpp). A flat form is an array of entries; a packet an object holding its
// header fields and its array of entries.
void writeJson(Out& out, const Form& form, const std::vector<uint32_t>& only);
// The flat form or packet of a document that writeJson wrote or a person edited; throws
// Failure with the JSON path of what it cannot read.
std::vector<uint8_t> formFromJson(std::string_view text);

//------------------------------------------------------------------------------------------
// The sample capture request (Sample.cpp): as an app sends it, in a packet sorted by tag,
// or as a receiver holds it, in a flat form (rectangles and sizes as MRect and MSize).
std::vector<uint8_t> samplePacket();
std::vector<uint8_t> sampleForm();

}  // namespace zmeta
