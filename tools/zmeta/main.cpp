// zmeta: reads, checks, compares and converts the flat form of a metadata container and the
// Android framework's camera metadata packets, for the engineer who holds one in a file (a
// dump, a capture of shared memory, a test vector). The two are told apart by their first
// bytes (a flat form starts with its storage magic), or by --format.
//
// Exit codes follow diff and cmp: 0 success (diff: identical, check: accepted); 1 when diff
// finds differences, check refuses the bytes, or get finds no such tag; 2 for every error,
// with one line on standard error and nothing on standard output.
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/FlatForm.h>
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>
#include <zorcam/platform/ULog.h>

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Zmeta.h"

namespace {

using namespace zmeta;

std::string shownName(const std::string& file) {
    return file == "-" ? "standard input" : file;
}

// The whole of a file (or of standard input, for "-"), in private memory: what is checked
// must be what is read, whoever else may be writing the file. Grown by realloc, which moves
// large blocks by remapping rather than copying, and never zero-filled, so that a 64 MiB
// input costs one pass over its bytes.
class Input {
public:
    explicit Input(const std::string& file) {
        FILE* f = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
        if (!f) throw Failure(file + ": " + std::strerror(errno));
        const std::unique_ptr<FILE, int (*)(FILE*)> closer(f == stdin ? nullptr : f, std::fclose);
        struct stat st;
        size_t capacity = fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode)
                              ? static_cast<size_t>(st.st_size) + 1  // + 1: sees the end at once
                              : size_t{1} << 20;
        for (size_t n = 1; n > 0; mSize += n) {
            if (mSize == capacity || !mData) {
                capacity = mData ? 2 * capacity : capacity;
                void* grown = std::realloc(mData.get(), capacity);
                if (!grown) throw std::bad_alloc();
                mData.release();
                mData.reset(static_cast<uint8_t*>(grown));
            }
            n = std::fread(mData.get() + mSize, 1, capacity - mSize, f);
        }
        if (std::ferror(f)) throw Failure(shownName(file) + ": " + std::strerror(errno));
    }

    const uint8_t* data() const { return mData.get(); }
    size_t size() const { return mSize; }

private:
    std::unique_ptr<uint8_t, void (*)(void*)> mData{nullptr, std::free};
    size_t mSize = 0;
};

enum class Kind { kUnknown, kFlat, kAndroid };

// What the bytes are: as --format says, else a flat form when they start with its magic and
// a packet otherwise (whose check then says what is wrong with bytes that are neither).
Kind kindOf(const Input& bytes, Kind format) {
    if (format != Kind::kUnknown) return format;
    uint32_t magic = 0;
    if (bytes.size() >= 4) std::memcpy(&magic, bytes.data(), 4);
    return magic == NSCam::flat::kStorageMagic ? Kind::kFlat : Kind::kAndroid;
}

// A file's bytes and its rows, once the check has accepted them. Nothing walks or rebuilds
// foreign bytes before checkFlatMetadata or checkAndroidPacket has said yes.
struct Loaded {
    explicit Loaded(const std::string& file) : bytes(file) {}
    Input bytes;
    std::unique_ptr<Form> form;
};

std::unique_ptr<Form> rowsOf(const std::string& file, const Input& bytes,
                             const NSCam::FlatCheck& check) {
    std::unique_ptr<Form> form;
    try {
        form = readForm(bytes.data(), bytes.size());
    } catch (const Failure& e) {
        throw Failure(shownName(file) + ": " + e.what());
    }
    if (bytes.size() - form->spare != check.consumed)
        throw Failure(shownName(file) +
                      ": the check and this tool disagree on where the form ends");
    return form;
}

std::string packetRefusal(const NSCam::AndroidPacketCheck& c) {
    return std::string(c.reason) + " (" + c.field + ") at byte " + std::to_string(c.offset);
}

std::unique_ptr<Loaded> load(const std::string& file, Kind format) {
    auto l = std::make_unique<Loaded>(file);
    if (kindOf(l->bytes, format) == Kind::kFlat) {
        const NSCam::FlatCheck check = NSCam::checkFlatMetadata(l->bytes.data(), l->bytes.size());
        if (!check.ok)
            throw Failure(shownName(file) + ": not a flat form: " + check.reason + " at byte " +
                          std::to_string(check.offset));
        l->form = rowsOf(file, l->bytes, check);
        return l;
    }
    const NSCam::AndroidPacketCheck check =
        NSCam::checkAndroidPacket(l->bytes.data(), l->bytes.size());
    if (!check.ok)
        throw Failure(shownName(file) + ": not an android packet: " + packetRefusal(check));
    try {
        l->form = readPacket(l->bytes.data(), l->bytes.size());
    } catch (const Failure& e) {
        throw Failure(shownName(file) + ": " + e.what());
    }
    return l;
}

// The container a receiver builds from what was loaded: a flat form rebuilt, a packet read
// with the platform's shapes (rectangles and sizes as MRect and MSize).
NSCam::IMetadata containerOf(const std::string& file, const Loaded& l) {
    NSCam::IMetadata meta;
    if (!l.form->android) {
        if (meta.unflatten(const_cast<uint8_t*>(l.bytes.data()), l.bytes.size()) < 0)
            throw Failure(shownName(file) + ": the container did not take the form");
        return meta;
    }
    const NSCam::AndroidTagMap shapes = NSCam::AndroidTagMap::withPlatformShapes();
    if (!NSCam::readAndroidPacket(l.bytes.data(), l.bytes.size(), meta, &shapes).ok)
        throw Failure(shownName(file) + ": the library did not read the packet");
    return meta;
}

std::vector<uint8_t> flatOf(const NSCam::IMetadata& meta) {
    const long size = meta.flattenSize();
    if (size < 0) throw Failure("the library cannot flatten the container");
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    if (meta.flatten(bytes.data(), bytes.size()) != size)
        throw Failure("the library cannot flatten the container");
    return bytes;
}

// A packet to compare with a flat form: the flat form of what a receiver reads from it.
std::unique_ptr<Form> asFlat(const std::string& file, const Loaded& l, std::vector<uint8_t>& keep) {
    keep = flatOf(containerOf(file, l));
    return readForm(keep.data(), keep.size());
}

std::string leftOutText(const NSCam::AndroidLeftOutList& left) {
    std::string text;
    for (size_t i = 0; i < left.entries.size() && i < 8; ++i) {
        const NSCam::AndroidLeftOut& e = left.entries[i];
        text += (i ? ", " : "") + hexTag(e.tag) + " " + typeName(e.type) + " (" +
                NSCam::androidLeftOutReasonText(e.reason) + ")";
    }
    if (left.entries.size() > 8) text += ", ...";
    return text;
}

// A flat form for standard output, which had better not be a terminal.
void emitBinary(Out& out, const std::vector<uint8_t>& bytes) {
    if (isatty(STDOUT_FILENO))
        throw Failure(
            "standard output is a terminal: redirect the flat form to a file or pipe it "
            "into another command");
    out.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::string spareAfter(const Form& form) {
    return form.spare ? "(" + std::to_string(form.spare) + " spare bytes after the " +
                            (form.android ? "packet" : "form") + ")\n"
                      : "";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "zmeta: reads, checks, compares and converts flat metadata.\n"
        "FILE may be - for standard input; output goes to standard output.",
        "zmeta"};
    app.require_subcommand(1);
    app.fallthrough();
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "let the library's log lines through to standard error");

    std::string fileA, fileB, tagText, formatText, toText;
    std::vector<std::string> only;
    bool sortedOut = false, lossy = false;
    app.add_option("-f,--format", formatText,
                   "read inputs as this form instead of telling it from their first bytes")
        ->check(CLI::IsMember({"flat", "android"}));
    const auto fileOption = [&](CLI::App* cmd, std::string& into, const char* name) {
        cmd->add_option(name, into, "a flat form or an android packet, or - for standard input")
            ->required();
    };
    const auto tagsOption = [&](CLI::App* cmd) {
        cmd->add_option("-t,--tags", only,
                        "only these tags: numbers or Android names, comma-separated")
            ->delimiter(',');
    };
    CLI::App* sample = app.add_subcommand(
        "sample", "write a sample capture request: a flat form, or with --format android a packet");
    CLI::App* dump =
        app.add_subcommand("dump", "one line per entry: tag, name, type[count], values");
    tagsOption(dump);
    fileOption(dump, fileA, "FILE");
    CLI::App* json = app.add_subcommand("json", "the entries as JSON, in row order");
    tagsOption(json);
    fileOption(json, fileA, "FILE");
    CLI::App* fromJson =
        app.add_subcommand("from-json", "the flat form or packet of a JSON document");
    fromJson->add_option("FILE", fileA, "a JSON document as json writes it, or -")->required();
    CLI::App* get = app.add_subcommand("get", "the values of one entry, one a line");
    fileOption(get, fileA, "FILE");
    get->add_option("TAG", tagText, "a tag number (0x00080002) or name (android.lens.focalLength)")
        ->required();
    CLI::App* diff = app.add_subcommand("diff", "entries only in A, only in B, and changed");
    fileOption(diff, fileA, "A");
    fileOption(diff, fileB, "B");
    CLI::App* checkCmd = app.add_subcommand("check", "the check receivers run on foreign bytes");
    fileOption(checkCmd, fileA, "FILE");
    CLI::App* convert = app.add_subcommand(
        "convert", "the container a receiver gets, as a flat form or an android packet");
    convert->add_option("--to", toText, "the form to write")
        ->required()
        ->check(CLI::IsMember({"flat", "android"}));
    convert->add_flag("--sorted", sortedOut, "a packet's entries sorted by tag");
    convert->add_flag("--lossy", lossy,
                      "leave out what has no Android form (named on standard error) instead of "
                      "failing");
    fileOption(convert, fileA, "FILE");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help
        std::string why = e.what();
        if (app.get_subcommands().empty()) {
            // "A subcommand is required" also when the word given is not a command: say so.
            for (int i = 1; i < argc; ++i) {
                if (argv[i][0] != '-') {
                    why = std::string("'") + argv[i] + "' is not a command";
                    break;
                }
            }
        }
        std::fprintf(stderr, "zmeta: %s (see zmeta --help)\n", why.c_str());
        return 2;
    }
    // Standard error carries the tool's own one-line errors; the library's log lines (it
    // logs some refusals) only when asked for.
    if (!verbose) NSCam::Utils::ULog::ULogger::sMode = 0;

    const Kind format = formatText.empty()        ? Kind::kUnknown
                        : formatText == "android" ? Kind::kAndroid
                                                  : Kind::kFlat;
    try {
        Out out(stdout);
        int status = 0;
        if (sample->parsed()) {
            emitBinary(out, format == Kind::kAndroid ? samplePacket() : sampleForm());
        } else if (dump->parsed() || json->parsed()) {
            const std::vector<uint32_t> tags = parseTagList(only);
            const auto l = load(fileA, format);
            if (dump->parsed()) {
                if (l->form->android) appendPacketHeader(out, *l->form);
                dumpForm(out, *l->form, tags);
                if (tags.empty()) out += spareAfter(*l->form);
            } else {
                writeJson(out, *l->form, tags);
            }
        } else if (fromJson->parsed()) {
            const Input text(fileA);
            std::vector<uint8_t> bytes;
            try {
                bytes = formFromJson(
                    std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
            } catch (const Failure& e) {
                throw Failure(shownName(fileA) + ": " + e.what());
            }
            emitBinary(out, bytes);
        } else if (get->parsed()) {
            uint32_t tag;
            if (!parseTag(tagText, tag))
                throw Failure(tagText + ": neither a tag number nor a known tag name");
            const auto l = load(fileA, format);
            const Row* row = findRow(*l->form, tag);
            if (row)
                printValues(out, *row);
            else
                status = 1;
        } else if (diff->parsed()) {
            const auto a = load(fileA, format);
            const auto b = load(fileB, format);
            // A packet against a flat form: the flat form of what a receiver reads from it.
            std::vector<uint8_t> keepA, keepB;
            std::unique_ptr<Form> flatA, flatB;
            if (a->form->android != b->form->android) {
                if (a->form->android) flatA = asFlat(fileA, *a, keepA);
                if (b->form->android) flatB = asFlat(fileB, *b, keepB);
            }
            Out lines;
            if (diffForms(lines, flatA ? *flatA : *a->form, flatB ? *flatB : *b->form)) {
                out += "--- " + shownName(fileA) + "\n+++ " + shownName(fileB) + "\n";
                out += lines.text();
                status = 1;
            }
        } else if (convert->parsed()) {
            const auto l = load(fileA, format);
            const NSCam::IMetadata meta = containerOf(fileA, *l);
            if (toText == "flat") {
                emitBinary(out, flatOf(meta));
            } else {
                NSCam::AndroidTagMap shapes = NSCam::AndroidTagMap::withPlatformShapes();
                NSCam::AndroidWriteOptions options;
                options.sorted = sortedOut;
                options.map = &shapes;
                if (l->form->android) options.vendorId = l->form->packet.vendorId;
                NSCam::AndroidLeftOutList left;
                const long size = NSCam::androidPacketSize(meta, options, &left);
                if (size < 0) throw Failure(shownName(fileA) + ": no android packet holds it");
                if (left.count && !lossy)
                    throw Failure(shownName(fileA) + ": " + std::to_string(left.count) +
                                  (left.count == 1 ? " entry has" : " entries have") +
                                  " no Android form: " + leftOutText(left) +
                                  "; --lossy leaves them out");
                std::vector<uint8_t> packet(static_cast<size_t>(size));
                if (NSCam::writeAndroidPacket(meta, packet.data(), packet.size(), options) != size)
                    throw Failure(shownName(fileA) + ": the library did not write the packet");
                emitBinary(out, packet);
                if (left.count)
                    std::fprintf(stderr, "zmeta: %s: left out %u %s: %s\n",
                                 shownName(fileA).c_str(), left.count,
                                 left.count == 1 ? "entry" : "entries", leftOutText(left).c_str());
            }
        } else {
            const Input bytes(fileA);
            if (kindOf(bytes, format) == Kind::kAndroid) {
                const NSCam::AndroidPacketCheck c =
                    NSCam::checkAndroidPacket(bytes.data(), bytes.size());
                if (c.ok) {
                    const uint32_t n = c.entryCount;
                    out += "ok: android packet, " + std::to_string(n) +
                           (n == 1 ? " entry, " : " entries, ") + std::to_string(c.size) +
                           " bytes\n";
                    if (bytes.size() > c.size)
                        out += "(" + std::to_string(bytes.size() - c.size) +
                               " spare bytes after the packet)\n";
                } else {
                    out += "refused at byte " + std::to_string(c.offset) + " (" + c.field +
                           "): " + c.reason + "\n";
                    status = 1;
                }
            } else if (const NSCam::FlatCheck c =
                           NSCam::checkFlatMetadata(bytes.data(), bytes.size());
                       c.ok) {
                const std::unique_ptr<Form> form = rowsOf(fileA, bytes, c);
                const size_t n = form->rows.size();
                out += "ok: " + std::to_string(n) + (n == 1 ? " entry, " : " entries, ") +
                       std::to_string(c.consumed) + " bytes\n" + spareAfter(*form);
            } else {
                out += "refused at byte " + std::to_string(c.offset) + ": " + c.reason + "\n";
                status = 1;
            }
        }
        out.flush();
        if (std::fflush(stdout) != 0)
            throw Failure(std::string("cannot write the output: ") + std::strerror(errno));
        return status;
    } catch (const Failure& e) {
        std::fprintf(stderr, "zmeta: %s\n", e.what());
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "zmeta: out of memory\n");
    }
    return 2;
}
