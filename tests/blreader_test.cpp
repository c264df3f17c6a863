// blreader_test.cpp -- the trace reader: conversions render byte for byte as
// C's printf renders them for the conversion's C type, and a file corrupted
// in any single byte or cut at any length gives an error or skips records,
// never a crash or an out-of-bounds read (this suite also runs under ASan).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/types.h>

#include "bltest_util.h"
#include "trace.h"

bl_log *bl_handle;

namespace {

template <typename T> std::string c_printf(const char *fmt, T v)
{
	char buf[256];
	std::snprintf(buf, sizeof buf, fmt, v);
	return buf;
}

blr_value num(bl_type t, std::uint64_t bits) { return {t, bits, {}}; }
blr_value sgn(bl_type t, std::int64_t v) { return {t, static_cast<std::uint64_t>(v), {}}; }
blr_value txt(const char *s) { return {BL_T_CHARP, 0, s}; }

}  // namespace

TEST(BlreaderFormat, ConversionsRenderAsPrintfWithTheConversionsType)
{
	const struct {
		const char *fmt;
		std::vector<blr_value> values;
		std::string want;
	} cases[] = {
		{"%09lu", {num(BL_T_U64, 42)}, c_printf("%09lu", 42ul)},
		{"%hhu", {num(BL_T_U16, 7784)}, "104"},
		{"%zd", {sgn(BL_T_S64, -3)}, c_printf("%zd", static_cast<ssize_t>(-3))},
		{"%d", {sgn(BL_T_S64, -4294967291ll)}, c_printf("%d", static_cast<int>(-4294967291ll))},
		{"%u", {num(BL_T_U8, 200)}, "200"},
		{"%u", {sgn(BL_T_S32, -1)}, "4294967295"},
		{"%-5d|", {sgn(BL_T_S32, -3)}, "-3   |"},
		{"%x %X", {num(BL_T_U32, 0xdeadbeef), num(BL_T_U32, 0xab)}, "deadbeef AB"},
		{"%#o", {num(BL_T_U16, 8)}, "010"},
		{"%hd", {num(BL_T_U32, 70000)}, c_printf("%hd", static_cast<short>(70000))},
		{"%lld", {num(BL_T_U64, UINT64_MAX)}, "-1"},
		{"%+.5d", {sgn(BL_T_S32, 42)}, "+00042"},
		{"%d", {num(BL_T_BOOL, 1)}, "1"},
		{"%p", {num(BL_T_U64, 0x1234)}, c_printf("%p", reinterpret_cast<void *>(0x1234))},
		{"%c%c", {num(BL_T_U8, 65), num(BL_T_U16, 0x142)}, "AB"},
		{"%.3s|%6s|%-4s|", {txt("abcdef"), txt("ab"), txt("x")}, "abc|    ab|x   |"},
		{"%s", {txt("two\nlines\n")}, "two\nlines\n"},
		{"100%% %u", {num(BL_T_U8, 5)}, "100% 5"},
		{"a trailing %", {}, "a trailing %"},
		{"%n%d", {num(BL_T_U8, 5)}, "%n5"},
		{"%*d|%d", {num(BL_T_U8, 5)}, "%*d|5"},
		{"%d", {txt("text")}, "<?>"},
		{"%s", {num(BL_T_U32, 1)}, "<?>"},
		{"%f %u", {num(BL_T_U32, 1), num(BL_T_U32, 2)}, "<?> 2"},
		{"%ls", {txt("wide")}, "<?>"},
		{"%d %d", {num(BL_T_U32, 7)}, "7 <?>"},
		{"%d", {num(BL_T_U32, 7), num(BL_T_U32, 8)}, "7"},
		{"%99999999d", {num(BL_T_U32, 7)}, "%99999999d"},
		{"%y", {num(BL_T_U32, 7)}, "%y"},
	};
	for (const auto &c : cases)
		EXPECT_EQ(blr_format(c.fmt, c.values), c.want) << '"' << c.fmt << '"';
}

TEST(BlreaderLevels, LevelListsParseToMasks)
{
	const struct {
		const char *text;
		bool ok;
		std::uint32_t mask;
	} cases[] = {
		{"1", true, 0x2}, {"1,3-5", true, 0x3a}, {"0-15", true, 0xffff}, {"2,2", true, 0x4},
		{"", false, 0},   {"16", false, 0},      {"3-1", false, 0},     {"1,", false, 0},
		{"a", false, 0},  {"1-", false, 0},      {"-1", false, 0},      {"1 2", false, 0},
	};
	for (const auto &c : cases) {
		std::uint32_t mask = 0;
		EXPECT_EQ(blr_parse_levels(c.text, &mask), c.ok) << c.text;
		if (c.ok)
			EXPECT_EQ(mask, c.mask) << c.text;
	}
}

// A small valid trace file: two levels of 1 KiB, level 0 wrapped. Written
// once per run: a call site describes itself only on its first use in the
// process.
class BlreaderCorruption : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		bl_temp_dir dir;
		bl_env_dir env(dir.path.c_str());
		bl_handle = bl_initialize_handle("c.bl", "1, 1");
		ASSERT_NE(bl_handle, nullptr);
		for (std::uint32_t i = 0; i < 40; i++)
			TRACE(0, "INIT: %u %s %d", i, "text", (std::int64_t)-1);
		TRACE(1, "ERROR: %hhu %c %s|", (std::uint16_t)7784, (std::uint8_t)'x', "a\nb");
		TRACE(1, "ERROR: flag %d", false);
		bl_close(bl_handle);
		bl_handle = nullptr;
		std::ifstream in(dir.file("c.bl"), std::ios::binary);
		pristine.assign(std::istreambuf_iterator<char>(in), {});
	}

	void SetUp() override
	{
		image = pristine;
		ASSERT_GT(image.size(), 4096u);
	}

	// Renders every record of the image; "" plus the error when it does not open.
	std::string read_image(std::span<const unsigned char> img, std::size_t *count)
	{
		blr_file f;
		const std::string why = blr_attach(f, img, "c.bl");
		*count = 0;
		if (!why.empty())
			return why;
		std::vector<blr_record> recs;
		blr_collect(f, ~0u, 0, recs);
		blr_sort(recs);
		for (const auto &r : recs)
			blr_render(f, r);
		*count = recs.size();
		return "";
	}

	std::uint64_t u64_at(std::size_t off)
	{
		std::uint64_t v;
		std::memcpy(&v, image.data() + off, 8);
		return v;
	}

	static inline std::vector<unsigned char> pristine;
	std::vector<unsigned char> image;
};

TEST_F(BlreaderCorruption, ValidFileReadsAllLiveRecords)
{
	std::size_t n;
	ASSERT_EQ(read_image(image, &n), "");
	EXPECT_GT(n, 10u);
	EXPECT_LT(n, 42u) << "level 0 wrapped";
}

TEST_F(BlreaderCorruption, EverySingleByteCorruptionIsRejectedOrSkipped)
{
	std::size_t base_count;
	ASSERT_EQ(read_image(image, &base_count), "");
	const std::uint64_t desc_used = u64_at(40);
	const std::uint64_t ring0 = u64_at(64), ring1 = u64_at(96);
	const std::pair<std::uint64_t, std::uint64_t> regions[] = {
		{0, 128}, {4096, 4096 + desc_used + 8}, {ring0, ring0 + 1024}, {ring1, ring1 + 1024}};
	int rejected = 0;
	for (const auto &[from, to] : regions) {
		for (std::uint64_t off = from; off < to; off++) {
			for (const unsigned char flip : {0xffu, 0x01u, 0x80u}) {
				image[off] ^= flip;
				std::size_t n;
				const std::string why = read_image(image, &n);
				if (!why.empty())
					rejected++;
				image[off] ^= flip;
			}
		}
	}
	EXPECT_GT(rejected, 0);
}

TEST_F(BlreaderCorruption, HeaderAndDescriptorDamageIsNamed)
{
	const struct {
		std::size_t off;
		unsigned char value;
		const char *want;
	} cases[] = {
		{0, 'X', "c.bl: not a trace file"},
		{8, 7, "c.bl: unsupported trace file version 7"},
		{16, 0, "c.bl: corrupt header (0 levels)"},
		{4096 + 4, 'Z', "c.bl: corrupt descriptor at offset 4096"},
		{4096 + 20, 33, "c.bl: corrupt descriptor at offset 4096"},
		{4096 + 21, 9, "c.bl: corrupt descriptor at offset 4096"},
		{4096, 3, "c.bl: corrupt descriptor at offset 4096"},
	};
	for (const auto &c : cases) {
		const unsigned char saved = image[c.off];
		image[c.off] = c.value;
		std::size_t n;
		EXPECT_EQ(read_image(image, &n), c.want) << c.off;
		image[c.off] = saved;
	}
}

TEST_F(BlreaderCorruption, CutFilesAreReportedAsTruncated)
{
	const std::string full = std::to_string(image.size());
	for (const std::size_t len : {std::size_t{0}, std::size_t{7}, std::size_t{8}, std::size_t{11},
				      std::size_t{12}, std::size_t{100}, std::size_t{4095},
				      std::size_t{4096}, std::size_t{5000}, image.size() / 2,
				      image.size() - 8, image.size() - 1}) {
		std::size_t n;
		const std::string why = read_image({image.data(), len}, &n);
		if (len < 8)
			EXPECT_EQ(why, "c.bl: not a trace file") << len;
		else if (len < 4096)
			EXPECT_EQ(why, "c.bl: truncated (" + std::to_string(len) + " bytes, header is 4096)")
				<< len;
		else
			EXPECT_EQ(why, "c.bl: truncated (" + std::to_string(len) + " bytes, header says " +
					       full + ")")
				<< len;
	}
}

TEST_F(BlreaderCorruption, RecordOfUnknownMessageIsShownAsSuch)
{
	// Wipe the descriptor area: records remain, their call sites are gone.
	std::fill(image.begin() + 4096, image.begin() + 4096 + 1024, 0);
	blr_file f;
	ASSERT_EQ(blr_attach(f, image, "c.bl"), "");
	std::vector<blr_record> recs;
	blr_collect(f, 0x2, 0, recs);
	ASSERT_EQ(recs.size(), 2u);
	const std::string line = blr_render(f, recs[0]);
	EXPECT_NE(line.find(" L1 ?:0 <unknown message id "), std::string::npos) << line;
}
