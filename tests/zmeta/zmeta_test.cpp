// Drives the zmeta binary as a user does: through a shell, with files and pipes. The
// library is linked only to build inputs and to normalise forms (rebuild, then flatten).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "Flat.h"

namespace {

namespace fs = std::filesystem;
using namespace NSCam;
using zorcam_test::flat;
using Bytes = std::vector<uint8_t>;

struct Result {
    int code;  // the exit code, or 128 + the signal that ended the process
    std::string out, err;
};

const fs::path& scratch() {
    static const fs::path dir = [] {
        char name[] = "/tmp/zmeta_test.XXXXXX";
        return fs::path(mkdtemp(name));
    }();
    return dir;
}

std::string slurp(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

// Removes the scratch directory once every test of the process has run.
class Cleanup : public testing::Environment {
    void TearDown() override { fs::remove_all(scratch()); }
};
testing::Environment* const kCleanup = testing::AddGlobalTestEnvironment(new Cleanup);

// Runs a shell command in the scratch directory; every "zmeta" in it names the binary.
Result run(const std::string& line) {
    std::string command;
    for (size_t at = 0, next; at < line.size(); at = next + 5) {
        next = std::min(line.find("zmeta", at), line.size());
        command += line.substr(at, next - at);
        if (next < line.size()) command += ZMETA_BINARY;
    }
    const fs::path err = scratch() / "stderr";
    FILE* p =
        popen(("cd " + scratch().string() + " && " + command + " 2>" + err.string()).c_str(), "r");
    Result r{-1, {}, {}};
    char buf[65536];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) r.out.append(buf, n);
    const int status = pclose(p);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.err = slurp(err);
    return r;
}

void write(const std::string& name, const void* data, size_t size) {
    std::ofstream(scratch() / name, std::ios::binary).write(static_cast<const char*>(data), size);
}
void write(const std::string& name, const Bytes& b) {
    write(name, b.data(), b.size());
}
void write(const std::string& name, const std::string& s) {
    write(name, s.data(), s.size());
}

Bytes packetOf(const IMetadata& m, bool sorted = false) {
    AndroidWriteOptions o;
    o.sorted = sorted;
    Bytes b(static_cast<size_t>(androidPacketSize(m, o)));
    writeAndroidPacket(m, b.data(), b.size(), o);
    return b;
}

// Hand-made forms, for what the container API cannot build.
void u32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
template <typename T>
Bytes raw(std::initializer_list<T> values) {
    Bytes b;
    for (const T& v : values) {
        const auto* p = reinterpret_cast<const uint8_t*>(&v);
        b.insert(b.end(), p, p + sizeof(T));
    }
    return b;
}
Bytes content(int32_t type, uint32_t count, const Bytes& payload = {}) {
    Bytes b;
    for (uint32_t v : {0xAB2454CDu, static_cast<uint32_t>(type), count}) u32(b, v);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}
Bytes storage(const std::vector<std::pair<uint32_t, Bytes>>& records) {
    Bytes b;
    u32(b, 0x01245432);
    u32(b, static_cast<uint32_t>(records.size()));
    for (const auto& [tag, c] : records) {
        u32(b, tag);
        u32(b, static_cast<uint32_t>(c.size()));
        b.insert(b.end(), c.begin(), c.end());
    }
    return b;
}
Bytes slots(const std::vector<Bytes>& elements) {  // length-prefixed blobs or nested blocks
    Bytes b;
    for (const Bytes& e : elements) {
        u32(b, static_cast<uint32_t>(e.size()));
        b.insert(b.end(), e.begin(), e.end());
    }
    return b;
}
float floatBits(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}
double doubleBits(uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
}

// json then from-json must give back the very bytes.
void expectJsonRoundTrip(const std::string& name, const Bytes& form) {
    ASSERT_TRUE(checkFlatMetadata(form.data(), form.size()).ok) << name;
    write(name, form);
    const Result r = run("zmeta json " + name + " | zmeta from-json - > " + name + ".back");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(slurp(scratch() / (name + ".back")), std::string(form.begin(), form.end()))
        << run("zmeta json " + name).out;
}

//------------------------------------------------------------------------------------------

// Every value type, the spellings of non-finite floats, a cut blob, a nested container
// with an empty slot and a row without content, in the dump's text.
TEST(ZmetaDump, MatchesGolden) {
    IMetadata inner;
    IMetadata::setEntry<int>(&inner, 0x00070003, 90);
    IMetadata m;
    const auto put = [&m](uint32_t tag, auto... values) {
        IMetadata::IEntry e(tag);
        (e.push_back(values, Type2Type<decltype(values)>()), ...);
        m.update(e);
    };
    put(0x00000000u, uint8_t{1});
    put(0x00010005u, 15, 30);
    put(0x00080002u, 4.38f, -0.0f, -std::numeric_limits<float>::infinity(), floatBits(0x7fc00001));
    put(0x000e0000u, 33333333L, -1L);
    put(0x00070000u, 37.422, std::numeric_limits<double>::infinity(),
        doubleBits(0xfff0000000000123));
    put(0x00000001u, MRational(1, 100));
    put(0x80010003u, MPoint(-100, 200));
    put(0x80000000u, MSize(4000, 3000));
    put(0x000d0000u, MRect(0, 0, 4000, 3000));
    Bytes blob(40);
    for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<uint8_t>(i);
    put(0x90010000u, IMetadata::Memory(), IMetadata::Memory(blob.data(), blob.size()));
    put(0x90000000u, inner, IMetadata());
    m.update(IMetadata::IEntry(0x000c0001));
    write("every_type", flat(m));

    const Result r = run("zmeta dump every_type");
    ASSERT_EQ(r.code, 0) << r.err;
    const fs::path golden = fs::path(ZMETA_TEST_DIR) / "every_type.dump";
    if (std::getenv("ZMETA_UPDATE_GOLDEN")) std::ofstream(golden) << r.out;
    EXPECT_EQ(r.out, slurp(golden));
}

// Every named seed form the check accepts, once it is as the library writes it. The inputs
// the fuzzers found (named by their hash) are replayed by the fuzz targets themselves; here
// each seed costs three processes, which under an emulator adds up to minutes.
class ZmetaCorpus : public testing::TestWithParam<fs::path> {};

bool foundByFuzzer(const fs::path& p) {
    const std::string n = p.filename().string();
    return n.size() == 40 && n.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::vector<fs::path> acceptedSeeds() {
    std::vector<fs::path> seeds;
    for (const auto& f : fs::recursive_directory_iterator(ZMETA_CORPUS_DIR)) {
        const bool named = f.is_regular_file() && !foundByFuzzer(f.path());
        const std::string s = named ? slurp(f.path()) : "";
        if (!s.empty() && checkFlatMetadata(s.data(), s.size()).ok) seeds.push_back(f.path());
    }
    std::sort(seeds.begin(), seeds.end());
    return seeds;
}

TEST(ZmetaCorpusSeeds, AreThere) {
    EXPECT_GE(acceptedSeeds().size(), 30u);
}

TEST_P(ZmetaCorpus, JsonRoundTripIsByteExact) {
    const std::string s = slurp(GetParam());
    const IMetadata rebuilt(s.data(), s.size());
    expectJsonRoundTrip("seed", flat(rebuilt));
}

INSTANTIATE_TEST_SUITE_P(Seeds, ZmetaCorpus, testing::ValuesIn(acceptedSeeds()),
                         [](const testing::TestParamInfo<fs::path>& p) {
                             std::string n = p.param.parent_path().filename().string() + "_" +
                                             p.param.filename().string();
                             for (char& c : n)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return n;
                         });

// Forms the library writes or accepts that a seed corpus may lack.
struct EdgeForm {
    const char* name;
    Bytes form;
};
void PrintTo(const EdgeForm& f, std::ostream* os) {
    *os << f.name;
}
class ZmetaEdges : public testing::TestWithParam<EdgeForm> {};

TEST_P(ZmetaEdges, JsonRoundTripIsByteExact) {
    expectJsonRoundTrip(GetParam().name, GetParam().form);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ZmetaEdges,
    testing::Values(
        EdgeForm{"repeated_tag", storage({{0x00010001, content(TYPE_INT32, 1, raw({1}))},
                                          {0x00010001, content(TYPE_INT64, 1, raw({2L}))}})},
        EdgeForm{"row_without_content", storage({{0x000c0001, {}}, {0x00000000, {}}})},
        EdgeForm{
            "empty_typed",
            storage({{0x1, content(TYPE_INT32, 0)}, {0x2, content(-1, 0)}, {0x3, content(12, 0)}})},
        EdgeForm{"float_bits",
                 storage({{0x00080002, content(TYPE_FLOAT, 9,
                                               raw({floatBits(0x7fc00001), floatBits(0xffa00000),
                                                    -0.0f, std::numeric_limits<float>::infinity(),
                                                    -std::numeric_limits<float>::infinity(),
                                                    std::numeric_limits<float>::max(),
                                                    std::numeric_limits<float>::denorm_min(), 0.1f,
                                                    // its shortest text, read as a double, narrows
                                                    // to the next float
                                                    floatBits(0x15ae43fd)}))}})},
        EdgeForm{"double_bits",
                 storage({{0x00070000,
                           content(TYPE_DOUBLE, 5,
                                   raw({doubleBits(0x7ff8000000000abc), -0.0,
                                        -std::numeric_limits<double>::infinity(),
                                        std::numeric_limits<double>::denorm_min(), 0.1}))}})},
        EdgeForm{"empty_slots_and_blobs",
                 storage({{0x90000000, content(TYPE_IMetadata, 3,
                                               slots({{}, storage({}), storage({{0x5, {}}})}))},
                          {0x90010000, content(TYPE_Memory, 2, slots({{}, {0xab}}))}})}),
    [](const testing::TestParamInfo<EdgeForm>& p) { return std::string(p.param.name); });

// What a user sees: exit codes, standard output, and for errors one line on standard error.
struct Use {
    const char* name;
    const char* command;
    int code;
    const char* out;  // expected within standard output; empty for errors
    const char* err;  // expected within the error line
};
void PrintTo(const Use& u, std::ostream* os) {
    *os << u.command;
}
class ZmetaUse : public testing::TestWithParam<Use> {
public:
    static void SetUpTestSuite() {
        IMetadata a, b;
        IMetadata::setEntry<float>(&a, 0x00080002, 4.38f);
        IMetadata::setEntry<uint8_t>(&a, 0x00010003, 1);
        IMetadata::setEntry<float>(&b, 0x00080002, 5.0f);
        IMetadata::setEntry<uint8_t>(&b, 0x00010007, 2);
        write("a", flat(a));
        write("b", flat(b));
        write("bad_type", storage({{0x00010001, content(11, 1, raw({1}))}}));
        write("repeated", storage({{0x00010001, content(TYPE_INT32, 1, raw({1}))},
                                   {0x00010001, content(TYPE_INT32, 2, raw({2, 3}))}}));
        write("truncated", flat(a).data(), flat(a).size() - 1);
        write("garbage.json", std::string("[{\"tag\": 1,"));
        write("wide.json", std::string(R"([{"tag": "0x1", "type": "uint8", "values": [256]}])"));
        write("misnamed.json", std::string(R"([{"tag": "0x1", "name": "android.lens.focalLength",
                                                "type": "uint8", "values": [1]}])"));
        IMetadata p;
        IMetadata::setEntry<uint8_t>(&p, 0x00010003, 1);
        IMetadata::IEntry focal(0x00080002);
        focal.push_back(4.38f, Type2Type<float>());
        focal.push_back(1.8f, Type2Type<float>());
        p.update(focal);
        IMetadata::setEntry<long>(&p, 0x000e0000, 33333333L);
        const Bytes packet = packetOf(p);
        write("packet.pkt", packet);
        write("truncated.pkt", packet.data(), packet.size() - 1);
        Bytes bad = packet;
        bad[64 + 8] = 4;  // entry 1's payload offset
        write("misaligned.pkt", bad);
        IMetadata blob;
        IMetadata::setEntry<IMetadata::Memory>(&blob, 0x80010000, IMetadata::Memory("abc", 3));
        write("blob", flat(blob));
    }
};

TEST_P(ZmetaUse, ExitCodeAndOutput) {
    const Use& u = GetParam();
    const Result r = run(u.command);
    EXPECT_EQ(r.code, u.code) << r.err;
    EXPECT_NE(r.out.find(u.out), std::string::npos) << r.out;
    if (u.code == 2) {
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("zmeta: ", 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(u.err), std::string::npos) << r.err;
    } else {
        EXPECT_EQ(r.err, "");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ZmetaUse,
    testing::Values(
        Use{"sample_is_accepted", "zmeta sample | zmeta check -", 0, "ok: 61 entries", ""},
        Use{"sample_packet_is_accepted", "zmeta sample --format android | zmeta check -", 0,
            "ok: android packet, 61 entries, 1272 bytes\n", ""},
        Use{"sample_in_both_forms",
            "zmeta sample > s.bin && zmeta sample -f android > s.pkt && "
            "zmeta convert --to android --sorted s.bin | cmp - s.pkt && "
            "zmeta convert --to flat s.pkt | cmp - s.bin && zmeta diff s.pkt s.bin && echo same",
            0, "same\n", ""},
        Use{"packet_check_refuses", "zmeta check misaligned.pkt", 1,
            "refused at byte 72 (data): payload offset not 8-aligned\n", ""},
        Use{"truncated_packet", "zmeta dump truncated.pkt", 2, "",
            "zmeta: truncated.pkt: not an android packet: larger than the bytes received (size) at "
            "byte 0\n"},
        Use{"packet_forced_flat", "zmeta --format flat dump packet.pkt", 2, "",
            "zmeta: packet.pkt: not a flat form: bad storage magic at byte 0\n"},
        Use{"get_from_packet", "zmeta get packet.pkt android.lens.focalLength", 0, "4.38\n1.8\n",
            ""},
        Use{"diff_packet_and_flat", "zmeta diff packet.pkt a", 1,
            "--- packet.pkt\n+++ a\n~ 0x00080002 android.lens.focalLength\n  - float[2] 4.38 1.8\n"
            "  + float[1] 4.38\n- 0x000e0000 android.sensor.exposureTime int64[1] 33333333\n",
            ""},
        Use{"no_android_form", "zmeta convert --to android blob", 2, "",
            "zmeta: blob: 1 entry has no Android form: 0x80010000 memory (no Android type); "
            "--lossy leaves them out\n"},
        Use{"check_refuses", "zmeta check bad_type", 1,
            "refused at byte 20: type code out of range", ""},
        Use{"dump_of_bad_type", "zmeta dump bad_type", 2, "", "type code out of range"},
        Use{"json_of_truncated", "zmeta json - < truncated", 2, "", "standard input: not a flat"},
        Use{"get_by_name", "zmeta get a android.lens.focalLength", 0, "4.38\n", ""},
        Use{"get_by_number", "zmeta get a 0x00010003", 0, "1\n", ""},
        Use{"get_repeated_gives_the_last", "zmeta get repeated 0x00010001", 0, "2\n3\n", ""},
        Use{"get_absent", "zmeta get a android.control.afMode", 1, "", ""},
        Use{"get_unknown_name", "zmeta get a android.lens.nothing", 2, "", "android.lens.nothing"},
        Use{"dump_filtered", "zmeta dump -t android.control.aeMode a", 0,
            "0x00010003 android.control.aeMode uint8[1] ON (1)\n", ""},
        Use{"diff_identical", "zmeta diff a a", 0, "", ""},
        Use{"diff_changed", "zmeta diff a b", 1,
            "--- a\n+++ b\n~ 0x00080002 android.lens.focalLength\n  - float[1] 4.38\n"
            "  + float[1] 5.0\n- 0x00010003 android.control.aeMode uint8[1] ON (1)\n"
            "+ 0x00010007 android.control.afMode uint8[1] MACRO (2)\n",
            ""},
        Use{"missing_file", "zmeta dump nothing_here", 2, "", "nothing_here: No such file"},
        Use{"bad_json", "zmeta from-json garbage.json", 2, "", "garbage.json: not JSON"},
        Use{"value_out_of_range", "zmeta from-json wide.json", 2, "",
            "/0/values/0: not an integer"},
        Use{"name_not_of_tag", "zmeta from-json misnamed.json", 2, "", "/0/name"},
        Use{"no_file_argument", "zmeta dump", 2, "", "FILE"},
        Use{"unknown_command", "zmeta frobnicate a", 2, "", "frobnicate"}),
    [](const testing::TestParamInfo<Use>& p) { return std::string(p.param.name); });

// The first lines of the sample packet's dump, as the README shows them: the header, enumerated
// values by name, rectangles and sizes by their typedef.
TEST(ZmetaPacket, SampleDumpMatchesGolden) {
    const Result r = run("zmeta sample --format android | zmeta dump -");
    ASSERT_EQ(r.code, 0) << r.err;
    const fs::path golden = fs::path(ZMETA_TEST_DIR) / "sample_android.dump";
    if (std::getenv("ZMETA_UPDATE_GOLDEN")) std::ofstream(golden) << r.out;
    EXPECT_EQ(r.out, slurp(golden));
}

// Every packet the bridge's tests write (the seeds of its fuzz target) that the check accepts
// comes back from json | from-json as the same bytes, up to the packet's own size. What the
// fuzzer found may be accepted without being laid out as a writer lays it out (spare
// capacity, gaps between values): those are not written by anyone here.
TEST(ZmetaPacket, JsonRoundTripOfEverySeedIsByteExact) {
    size_t tried = 0;
    for (const auto& f :
         fs::directory_iterator(fs::path(ZMETA_CORPUS_DIR) / "AndroidPacket_fuzz")) {
        if (foundByFuzzer(f.path())) continue;
        const std::string s = slurp(f.path());
        const AndroidPacketCheck c = checkAndroidPacket(s.data(), s.size());
        if (!c.ok) continue;
        ++tried;
        write("seed.pkt", s.data(), s.size());
        const Result r = run("zmeta json seed.pkt | zmeta from-json - > seed.back");
        ASSERT_EQ(r.code, 0) << f.path() << ": " << r.err;
        EXPECT_EQ(slurp(scratch() / "seed.back"), s.substr(0, c.size)) << f.path();
    }
    EXPECT_GE(tried, 20u);
}

TEST(ZmetaPacket, LossyConvertNamesWhatItLeftOut) {
    IMetadata m;
    IMetadata::setEntry<uint8_t>(&m, 0x00010003, 1);
    IMetadata::setEntry<IMetadata::Memory>(&m, 0x80010000, IMetadata::Memory("abc", 3));
    IMetadata::setEntry<MRect>(&m, 0x80000000, MRect(0, 0, 1, 1));
    write("mixed", flat(m));
    const Result r = run("zmeta convert --to android --lossy mixed > mixed.pkt");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.err,
              "zmeta: mixed: left out 2 entries: 0x80010000 memory (no Android type), 0x80000000 "
              "rect (no shape for it in the tag map)\n");
    const Result dump = run("zmeta dump mixed.pkt");
    EXPECT_EQ(dump.code, 0);
    EXPECT_EQ(dump.out,
              "android packet: 64 bytes, 1 entry, data 0 bytes, flags 0x00000000, vendor id none\n"
              "0x00010003 android.control.aeMode byte[1] ON (1)\n");
}

// Forms of 64 MiB and more come through a pipe whole.
TEST(ZmetaInput, Reads64MiBFromStandardInput) {
    write("big",
          storage({{0x90010000,
                    content(TYPE_Memory, 64, slots(std::vector<Bytes>(64, Bytes(1 << 20, 7))))}}));
    const Result r = run("cat big | zmeta check -");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "ok: 1 entry, 67109148 bytes\n");
}

}  // namespace
