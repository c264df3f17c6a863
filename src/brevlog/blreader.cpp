// blreader.cpp -- reading trace files: header and descriptor validation,
// collection of the live records of each ring, printf-faithful rendering.
//
// Everything read from the file is untrusted: bounds are checked before each
// access, values are copied out with memcpy (no casts of file bytes to
// structs), and integers are widened before arithmetic so that no offset sum
// can wrap.
//
// Every byte comes through read_at: pread from the file, or memcpy from an
// attached image. The writer updates the file while we read it, so a value
// read twice may differ: each is read once into our memory and checked there.
#include "blreader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/types.h>
#include <type_traits>
#include <unistd.h>

#include "wire.h"

namespace {

constexpr std::uint64_t BLR_MAX_RING = 1048576ull * 1024;  // the writer's largest level, bytes
constexpr std::uint64_t BLR_MAX_DESC_AREA = 64ull * 1024 * 1024;
constexpr std::uint32_t BLR_MAX_SPEC_NUMBER = 4096;  // widths/precisions beyond are shown literally
constexpr const char *BLR_MISSING = "<?>";
// Ring bytes read at once: many records per read, and always a whole record
// of BL_MAX_RECORD past the first one's start.
constexpr std::size_t BLR_CHUNK = 64 * 1024;
static_assert(BLR_CHUNK % 8 == 0 && BLR_CHUNK >= 2 * BL_MAX_RECORD);

std::string u64s(std::uint64_t v) { return std::to_string(v); }

const unsigned char *level_entry(const unsigned char *base, std::uint32_t i)
{
	return base + BL_LEVEL_TABLE_OFF + static_cast<std::size_t>(i) * BL_LEVEL_ENTRY_SIZE;
}

std::uint64_t head_offset(std::uint32_t level)
{
	return BL_LEVEL_TABLE_OFF + std::uint64_t{level} * BL_LEVEL_ENTRY_SIZE + BL_LVL_HEAD;
}

// Copies `len` bytes at `off` of the file into `dst`. False, with f.truncated
// set, when the file ends before them: it was cut under us.
bool read_at(blr_file &f, std::uint64_t off, void *dst, std::size_t len)
{
	if (off > f.size || len > f.size - off) {
		f.truncated = true;
		return false;
	}
	if (len == 0)
		return true;  // dst may be the null data() of an empty buffer
	if (f.base) {
		std::memcpy(dst, f.base + off, len);
		return true;
	}
	auto *d = static_cast<unsigned char *>(dst);
	for (std::size_t done = 0; done < len;) {
		const ssize_t n = pread(f.fd, d + done, len - done, static_cast<off_t>(off + done));
		if (n > 0)
			done += static_cast<std::size_t>(n);
		else if (n == -1 && errno == EINTR)
			continue;
		else {
			f.truncated = true;  // end of file early, or an I/O error: no more of it
			return false;
		}
	}
	return true;
}

bool read_u64(blr_file &f, std::uint64_t off, std::uint64_t *v)
{
	unsigned char b[8];
	if (!read_at(f, off, b, sizeof b))
		return false;
	*v = load_host<std::uint64_t>(b);
	return true;
}

// Bytes of the hole that starts at file offset `at`, at most `limit`, a
// multiple of 8; 0 when data is there, for an image, or when the file
// system does not tell. A hole reads as zeros and no record stamp is zero,
// so no record starts in it.
std::uint64_t hole_at(const blr_file &f, std::uint64_t at, std::uint64_t limit)
{
	if (f.base || f.fd == -1)
		return 0;
	const off_t data = lseek(f.fd, static_cast<off_t>(at), SEEK_DATA);
	if (data == -1) {
		// ENXIO: no data after `at` up to the end, or the end moved before
		// `at`; then the read that follows finds the file cut.
		struct stat st;
		if (errno == ENXIO && fstat(f.fd, &st) == 0 && static_cast<std::uint64_t>(st.st_size) >= f.size)
			return limit & ~std::uint64_t{7};
		return 0;
	}
	const std::uint64_t d = static_cast<std::uint64_t>(data);
	return d <= at ? 0 : std::min(d - at, limit) & ~std::uint64_t{7};
}

bool valid_type(std::uint8_t t) { return t >= BL_T_BOOL && t <= BL_T_S64; }

// Rebuilt conversion, e.g. "%-09.3" + "ll" + "u", rendered with one value.
template <typename T> std::string render_one(const std::string &conversion, T v)
{
	char small[128];
	const int n = std::snprintf(small, sizeof small, conversion.c_str(), v);
	if (n < 0)
		return BLR_MISSING;
	if (static_cast<std::size_t>(n) < sizeof small)
		return std::string(small, static_cast<std::size_t>(n));
	std::string big(static_cast<std::size_t>(n) + 1, '\0');
	std::snprintf(big.data(), big.size(), conversion.c_str(), v);
	big.resize(static_cast<std::size_t>(n));
	return big;
}

template <typename T> T as(std::uint64_t bits)
{
	// Modular conversion, as C converts an integer to a narrower type.
	return static_cast<T>(bits);
}

std::string render_signed(const std::string &conversion, std::string_view len, std::uint64_t bits)
{
	if (len == "hh") return render_one(conversion, static_cast<int>(as<signed char>(bits)));
	if (len == "h") return render_one(conversion, static_cast<int>(as<short>(bits)));
	if (len == "l") return render_one(conversion, as<long>(bits));
	if (len == "ll") return render_one(conversion, as<long long>(bits));
	if (len == "z") return render_one(conversion, as<ssize_t>(bits));
	if (len == "j") return render_one(conversion, as<std::intmax_t>(bits));
	if (len == "t") return render_one(conversion, as<std::ptrdiff_t>(bits));
	return render_one(conversion, as<int>(bits));
}

std::string render_unsigned(const std::string &conversion, std::string_view len, std::uint64_t bits)
{
	if (len == "hh") return render_one(conversion, static_cast<unsigned>(as<unsigned char>(bits)));
	if (len == "h") return render_one(conversion, static_cast<unsigned>(as<unsigned short>(bits)));
	if (len == "l") return render_one(conversion, as<unsigned long>(bits));
	if (len == "ll") return render_one(conversion, as<unsigned long long>(bits));
	if (len == "z") return render_one(conversion, as<std::size_t>(bits));
	if (len == "j") return render_one(conversion, as<std::uintmax_t>(bits));
	if (len == "t") return render_one(conversion, as<std::make_unsigned_t<std::ptrdiff_t>>(bits));
	return render_one(conversion, as<unsigned>(bits));
}

bool is_int_value(const blr_value &v) { return v.type != BL_T_CHARP; }

// Renders one conversion whose text (from '%' to the conversion character)
// is `flags` `width` `prec` `len` `conv`.
std::string render_conversion(std::string_view flags, std::string_view width,
			      std::string_view prec, std::string_view len, char conv,
			      const blr_value *v)
{
	// q and L mean ll for integers; the rebuilt conversion names the type we pass.
	std::string_view l = (len == "q" || len == "L") ? std::string_view("ll") : len;
	std::string conversion = "%";
	conversion.append(flags).append(width).append(prec);
	if (!v)
		return BLR_MISSING;
	switch (conv) {
	case 'd':
	case 'i':
		if (!is_int_value(*v))
			return BLR_MISSING;
		conversion.append(l).push_back(conv);
		return render_signed(conversion, l, v->bits);
	case 'u':
	case 'o':
	case 'x':
	case 'X':
		if (!is_int_value(*v))
			return BLR_MISSING;
		conversion.append(l).push_back(conv);
		return render_unsigned(conversion, l, v->bits);
	case 'c':
		if (!is_int_value(*v) || !len.empty())
			return BLR_MISSING;
		conversion.push_back('c');
		return render_one(conversion, as<int>(v->bits));
	case 'p':
		if (!is_int_value(*v))
			return BLR_MISSING;
		conversion.push_back('p');
		return render_one(conversion, reinterpret_cast<const void *>(as<std::uintptr_t>(v->bits)));
	case 's':
		if (v->type != BL_T_CHARP || !len.empty())
			return BLR_MISSING;
		conversion.push_back('s');
		return render_one(conversion, v->text.c_str());
	default:
		// Floating conversions: no stored type is a floating value.
		return BLR_MISSING;
	}
}

std::time_t to_time(std::uint64_t sec)
{
	return static_cast<std::time_t>(sec);
}

// blr_check_header on the first `avail` bytes of a file of `n` bytes
// (avail = min(n, BL_HEADER_SIZE) or more).
std::string check_header(const unsigned char *b, std::uint64_t avail, std::uint64_t n)
{
	if (avail < sizeof BL_MAGIC || std::memcmp(b, BL_MAGIC, sizeof BL_MAGIC) != 0)
		return "not a trace file";
	if (n < BL_HDR_VERSION + sizeof(std::uint32_t))
		return "truncated (" + u64s(n) + " bytes, header is " + u64s(BL_HEADER_SIZE) + ")";
	const auto version = load_host<std::uint32_t>(b + BL_HDR_VERSION);
	if (version != BL_VERSION)
		return "unsupported trace file version " + u64s(version);
	if (n < BL_HEADER_SIZE)
		return "truncated (" + u64s(n) + " bytes, header is " + u64s(BL_HEADER_SIZE) + ")";
	if (load_host<std::uint32_t>(b + BL_HDR_HEADER_SIZE) != BL_HEADER_SIZE)
		return "corrupt header (header size " + u64s(load_host<std::uint32_t>(b + BL_HDR_HEADER_SIZE)) + ")";
	const auto nlevels = load_host<std::uint32_t>(b + BL_HDR_NLEVELS);
	if (nlevels < 1 || nlevels > BL_MAX_LEVELS)
		return "corrupt header (" + u64s(nlevels) + " levels)";
	const auto desc_off = load_host<std::uint64_t>(b + BL_HDR_DESC_OFF);
	const auto desc_size = load_host<std::uint64_t>(b + BL_HDR_DESC_SIZE);
	if (desc_off != BL_HEADER_SIZE || desc_size == 0 || desc_size % 8 != 0 ||
	    desc_size > BLR_MAX_DESC_AREA)
		return "corrupt header (descriptor area " + u64s(desc_off) + "+" + u64s(desc_size) + ")";

	// Rings follow the descriptor area back to back.
	std::uint64_t expect = desc_off + desc_size;
	for (std::uint32_t i = 0; i < nlevels; i++) {
		const unsigned char *l = level_entry(b, i);
		const auto off = load_host<std::uint64_t>(l + BL_LVL_RING_OFF);
		const auto size = load_host<std::uint64_t>(l + BL_LVL_RING_SIZE);
		if (off != expect || size == 0 || size % 8 != 0 || size > BLR_MAX_RING)
			return "corrupt header (level " + u64s(i) + " ring " + u64s(off) + "+" +
			       u64s(size) + ")";
		expect += size;
	}
	if (n < expect)
		return "truncated (" + u64s(n) + " bytes, header says " + u64s(expect) + ")";
	if (n > expect)
		return "corrupt header (" + u64s(n) + " bytes, header says " + u64s(expect) + ")";
	return "";
}

// Takes the validated header `b` into `f`.
void take_header(blr_file &f, const unsigned char *b)
{
	f.nlevels = load_host<std::uint32_t>(b + BL_HDR_NLEVELS);
	f.desc_size = load_host<std::uint64_t>(b + BL_HDR_DESC_SIZE);
	f.created_ns = load_host<std::uint64_t>(b + BL_HDR_CREATED_NS);
	f.levels.resize(f.nlevels);
	f.next_pos.assign(f.nlevels, 0);
	for (std::uint32_t i = 0; i < f.nlevels; i++) {
		f.levels[i].ring_off = load_host<std::uint64_t>(level_entry(b, i) + BL_LVL_RING_OFF);
		f.levels[i].ring_size = load_host<std::uint64_t>(level_entry(b, i) + BL_LVL_RING_SIZE);
	}
}

// "" unless a level's head claims BLR_HOLE_PROOF bytes or more written and
// the written part of its ring is one hole.
std::string check_claims(blr_file &f)
{
	for (std::uint32_t i = 0; i < f.nlevels; i++) {
		std::uint64_t head;
		if (!read_u64(f, head_offset(i), &head))
			return "truncated while being read";
		const std::uint64_t written = std::min(head, f.levels[i].ring_size);
		if (written >= BLR_HOLE_PROOF && hole_at(f, f.levels[i].ring_off, written) == written)
			return "corrupt header (level " + u64s(i) + " head " + u64s(head) +
			       ", but its ring holds no data)";
	}
	return "";
}

}  // namespace

blr_file::~blr_file()
{
	if (fd != -1)
		close(fd);
}

std::string blr_check_header(std::span<const unsigned char> image)
{
	return check_header(image.data(), image.size(), image.size());
}

std::string blr_open(blr_file &f, const char *path)
{
	f.path = path;
	// O_NONBLOCK: a FIFO in place of the file must not hold us in open().
	f.fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
	if (f.fd == -1)
		return f.path + ": " + std::strerror(errno);
	struct stat st;
	if (fstat(f.fd, &st) == -1)
		return f.path + ": " + std::strerror(errno);
	if (!S_ISREG(st.st_mode))
		return f.path + ": not a trace file";
	if (st.st_size == 0)
		return f.path + ": not a trace file (empty)";
	f.dev = st.st_dev;
	f.ino = st.st_ino;
	f.size = static_cast<std::uint64_t>(st.st_size);

	// The header as it is now, checked against the size fstat gave.
	unsigned char hdr[BL_HEADER_SIZE];
	const std::size_t avail = static_cast<std::size_t>(std::min<std::uint64_t>(f.size, sizeof hdr));
	if (!read_at(f, 0, hdr, avail))
		return f.path + ": truncated while being read";
	std::string why = check_header(hdr, avail, f.size);
	if (why.empty()) {
		take_header(f, hdr);
		why = check_claims(f);
	}
	if (why.empty())
		why = blr_load_descs(f);
	if (why.empty() && f.truncated)
		why = "truncated while being read";
	return why.empty() ? why : f.path + ": " + why;
}

std::string blr_attach(blr_file &f, std::span<const unsigned char> image, const char *name)
{
	f.path = name;
	f.base = image.data();
	f.size = image.size();
	const std::string why = blr_check_header(image);
	if (!why.empty())
		return f.path + ": " + why;
	take_header(f, f.base);
	const std::string d = blr_load_descs(f);
	return d.empty() ? d : f.path + ": " + d;
}

std::string blr_load_descs(blr_file &f)
{
	std::uint64_t used;
	if (!read_u64(f, BL_HDR_DESC_USED, &used))
		return "";
	used = std::min(used, f.desc_size);
	// Entries are only ever added: nothing new unless the area grew or
	// held an entry still being written.
	if (used == f.desc_loaded && !f.desc_partial)
		return "";
	std::vector<unsigned char> copy(static_cast<std::size_t>(used));
	if (!read_at(f, BL_HEADER_SIZE, copy.data(), copy.size()))
		return "";
	const unsigned char *area = copy.data();
	bool partial = false;
	std::vector<blr_desc> descs;
	std::uint64_t o = 0;
	while (o + BL_DESC_HDR_SIZE <= used) {
		const std::uint64_t at = BL_HEADER_SIZE + o;
		const std::string corrupt = "corrupt descriptor at offset " + u64s(at);
		const auto entry_len = load_host<std::uint32_t>(area + o + BL_DESC_ENTRY_LEN);
		if (entry_len == 0) {
			partial = true;  // reserved, not yet written, or the writer died there
			break;
		}
		if (entry_len % 8 != 0 || entry_len < BL_DESC_MIN_LEN || entry_len > f.desc_size - o)
			return corrupt;
		const auto magic = load_host<std::uint32_t>(area + o + BL_DESC_MAGIC_OFF);
		if (magic != BL_DESC_MAGIC) {
			if (magic != 0)
				return corrupt;
			partial = true;
			o += entry_len;  // still being written
			continue;
		}
		if (entry_len > used - o) {
			partial = true;  // complete, but beyond desc_used as we read it
			break;
		}
		const unsigned char *e = area + o;
		blr_desc d;
		d.msg_id = load_host<std::uint32_t>(e + BL_DESC_MSG_ID);
		d.line = load_host<std::uint32_t>(e + BL_DESC_LINE);
		const std::uint32_t file_len = load_host<std::uint16_t>(e + BL_DESC_FILE_LEN);
		const std::uint32_t fmt_len = load_host<std::uint16_t>(e + BL_DESC_FMT_LEN);
		const std::uint32_t nargs = e[BL_DESC_NARGS];
		if (d.msg_id == 0 || nargs > BL_MAX_ARGS ||
		    BL_DESC_TYPES + nargs + file_len + fmt_len > entry_len)
			return corrupt;
		d.types.assign(e + BL_DESC_TYPES, e + BL_DESC_TYPES + nargs);
		for (std::uint8_t t : d.types)
			if (!valid_type(t))
				return corrupt;
		const char *text = reinterpret_cast<const char *>(e + BL_DESC_TYPES + nargs);
		d.file.assign(text, file_len);
		d.fmt.assign(text + file_len, fmt_len);
		descs.push_back(std::move(d));
		o += entry_len;
	}
	std::stable_sort(descs.begin(), descs.end(),
			 [](const blr_desc &a, const blr_desc &b) { return a.msg_id < b.msg_id; });
	for (std::size_t i = 1; i < descs.size(); i++)
		if (descs[i].msg_id == descs[i - 1].msg_id)
			return "corrupt descriptor (message id " + u64s(descs[i].msg_id) + " twice)";
	f.descs = std::move(descs);
	f.desc_loaded = used;
	f.desc_partial = partial;
	return "";
}

bool blr_decode_values(std::span<const unsigned char> body, std::vector<blr_value> &out)
{
	const unsigned char *b = body.data();
	const std::size_t n = body.size();
	std::size_t i = 0;
	while (i < n) {
		const std::uint8_t tag = b[i];
		if (tag == 0) {
			// Padding: fewer than 8 zero bytes up to the record's end.
			if (n - i >= 8)
				return false;
			for (std::size_t j = i; j < n; j++)
				if (b[j] != 0)
					return false;
			return true;
		}
		i++;
		blr_value v{tag, 0, {}};
		std::size_t w = 0;
		switch (static_cast<bl_type>(tag)) {
		case BL_T_BOOL:
		case BL_T_U8: w = 1; break;
		case BL_T_U16: w = 2; break;
		case BL_T_S32:
		case BL_T_U32: w = 4; break;
		case BL_T_S64:
		case BL_T_U64: w = 8; break;
		case BL_T_CHARP: w = BL_TEXT_LEN_SIZE; break;
		}
		if (w == 0 || n - i < w)
			return false;
		switch (static_cast<bl_type>(tag)) {
		case BL_T_BOOL:
			if (b[i] > 1)
				return false;
			v.bits = b[i];
			break;
		case BL_T_U8: v.bits = b[i]; break;
		case BL_T_U16: v.bits = load_host<std::uint16_t>(b + i); break;
		case BL_T_U32: v.bits = load_host<std::uint32_t>(b + i); break;
		case BL_T_U64: v.bits = load_host<std::uint64_t>(b + i); break;
		case BL_T_S32:
			v.bits = static_cast<std::uint64_t>(
				static_cast<std::int64_t>(load_host<std::int32_t>(b + i)));
			break;
		case BL_T_S64: v.bits = load_host<std::uint64_t>(b + i); break;
		case BL_T_CHARP: {
			const std::size_t tlen = load_host<std::uint16_t>(b + i);
			if (n - i - BL_TEXT_LEN_SIZE < tlen)
				return false;
			v.text.assign(reinterpret_cast<const char *>(b + i + BL_TEXT_LEN_SIZE), tlen);
			w = BL_TEXT_LEN_SIZE + tlen;
			break;
		}
		}
		i += w;
		out.push_back(std::move(v));
	}
	return true;
}

void blr_collect(blr_file &f, std::uint32_t level_mask, std::uint32_t file_index,
		 std::vector<blr_record> &out)
{
	std::unique_ptr<unsigned char[]> chunk;
	for (std::uint32_t lv = 0; lv < f.nlevels && !f.truncated; lv++) {
		if (!(level_mask & (1u << lv)))
			continue;
		const std::uint64_t size = f.levels[lv].ring_size;
		const std::uint64_t ring_off = f.levels[lv].ring_off;
		std::uint64_t head;
		if (!read_u64(f, head_offset(lv), &head))
			return;

		// Window of live records: [head - size, head), from where we stopped.
		std::uint64_t p = head > size ? head - size : 0;
		p = std::max(p, f.next_pos[lv]);
		p = (p + 7) & ~std::uint64_t{7};  // no wrap: p <= head - 8 or next_pos <= head
		std::uint64_t resume = p;
		// The ring bytes of stream positions [c_lo, c_hi) are in `chunk`,
		// copied before the head read into head_after.
		std::uint64_t c_lo = 0, c_hi = 0, head_after = 0;
		// Moves p on by n, never past head (so p cannot wrap).
		auto skip = [&](std::uint64_t n) { p += std::min(n, head - p); };
		while (p < head && head - p >= BL_REC_HDR_SIZE) {
			const std::uint64_t off = p % size;
			if (size - off < BL_REC_HDR_SIZE) {
				skip(size - off);  // no record starts this close to the end
				continue;
			}
			// A record here lies within `reach` bytes: it never crosses the
			// ring's end nor the head.
			const std::uint64_t reach = std::min({std::uint64_t{BL_MAX_RECORD}, size - off, head - p});
			if (p < c_lo || p + reach > c_hi) {
				const std::uint64_t until = std::min(size - off, head - p);
				if (const std::uint64_t hole = hole_at(f, ring_off + off, until); hole != 0) {
					skip(hole);
					continue;
				}
				if (!chunk)
					chunk = std::make_unique<unsigned char[]>(BLR_CHUNK);
				const std::uint64_t want = std::min<std::uint64_t>(BLR_CHUNK, until);
				if (!read_at(f, ring_off + off, chunk.get(), static_cast<std::size_t>(want)) ||
				    !read_u64(f, head_offset(lv), &head_after))
					return;
				c_lo = p;
				c_hi = p + want;
			}
			const unsigned char *rec = chunk.get() + (p - c_lo);
			if (load_host<std::uint64_t>(rec + BL_REC_STAMP) != ~p) {
				p += 8;
				continue;
			}
			const std::uint32_t len = load_host<std::uint32_t>(rec + BL_REC_LEN);
			if (len < BL_REC_HDR_SIZE || len % 8 != 0 || len > reach) {
				f.stats.malformed++;
				p += 8;
				continue;
			}
			if (head_after > size && head_after - size > p) {
				f.stats.torn++;  // the writer overtook it while we copied it
				p += 8;
				continue;
			}
			blr_record r;
			r.pos = p;
			r.level = lv;
			r.file_index = file_index;
			r.msg_id = load_host<std::uint32_t>(rec + BL_REC_MSG_ID);
			r.time_ns = load_host<std::uint64_t>(rec + BL_REC_TIME_NS);
			if (!blr_decode_values({rec + BL_REC_HDR_SIZE, len - BL_REC_HDR_SIZE}, r.values)) {
				f.stats.malformed++;
				p += len;
				continue;
			}
			out.push_back(std::move(r));
			p += len;
			resume = p;
		}
		// Resume after the last good record: a record reserved but not yet
		// stamped is found again by the next call.
		f.next_pos[lv] = resume;
	}
}

std::string blr_format(std::string_view fmt, std::span<const blr_value> values)
{
	std::string out;
	std::size_t next = 0;
	std::size_t i = 0;
	while (i < fmt.size()) {
		const char ch = fmt[i];
		if (ch != '%') {
			out.push_back(ch);
			i++;
			continue;
		}
		const std::size_t start = i++;
		auto digits = [&](bool *star, bool *too_big) {
			const std::size_t s = i;
			std::uint64_t v = 0;
			if (i < fmt.size() && fmt[i] == '*') {
				*star = true;
				i++;
				return fmt.substr(s, i - s);
			}
			while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
				v = std::min<std::uint64_t>(v * 10 + static_cast<unsigned>(fmt[i] - '0'),
							    1u << 30);
				i++;
			}
			if (v > BLR_MAX_SPEC_NUMBER)
				*too_big = true;
			return fmt.substr(s, i - s);
		};
		const std::size_t fs = i;
		while (i < fmt.size() && std::strchr("-+ 0#'", fmt[i]) && fmt[i] != '\0')
			i++;
		const std::string_view flags = fmt.substr(fs, i - fs);
		bool star = false, too_big = false;
		const std::string_view width = digits(&star, &too_big);
		std::string_view prec;
		if (i < fmt.size() && fmt[i] == '.') {
			const std::size_t ps = i++;
			digits(&star, &too_big);
			prec = fmt.substr(ps, i - ps);
		}
		const std::size_t ls = i;
		if (i + 1 < fmt.size() && ((fmt[i] == 'h' && fmt[i + 1] == 'h') ||
					   (fmt[i] == 'l' && fmt[i + 1] == 'l')))
			i += 2;
		else if (i < fmt.size() && std::strchr("hlzjtLq", fmt[i]) && fmt[i] != '\0')
			i++;
		const std::string_view len = fmt.substr(ls, i - ls);
		if (i >= fmt.size()) {
			out.append(fmt.substr(start));  // a lone '%' at the end
			break;
		}
		const char conv = fmt[i++];
		const std::string_view text = fmt.substr(start, i - start);
		if (conv == '%' && text.size() == 2) {
			out.push_back('%');
			continue;
		}
		if (star || too_big || !std::strchr("diouxXcspeEfFgGaA", conv)) {
			out.append(text);  // not executed: shown as written
			continue;
		}
		const blr_value *v = next < values.size() ? &values[next] : nullptr;
		next++;
		out += render_conversion(flags, width, prec, len, conv, v);
	}
	return out;
}

std::string blr_render(const blr_file &f, const blr_record &r)
{
	char when[64];
	const std::time_t t = to_time(r.time_ns / 1000000000u);
	std::tm tm;
	if (localtime_r(&t, &tm) && std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm))
		std::snprintf(when + std::strlen(when), sizeof when - std::strlen(when), ".%09u",
			      static_cast<unsigned>(r.time_ns % 1000000000u));
	else
		std::snprintf(when, sizeof when, "@%llu", static_cast<unsigned long long>(r.time_ns));

	std::string line = when;
	line += " L" + u64s(r.level) + " ";
	auto it = std::lower_bound(f.descs.begin(), f.descs.end(), r.msg_id,
				   [](const blr_desc &d, std::uint32_t id) { return d.msg_id < id; });
	if (it == f.descs.end() || it->msg_id != r.msg_id) {
		line += "?:0 <unknown message id " + u64s(r.msg_id) + ">";
		return line;
	}
	line += it->file + ":" + u64s(it->line) + " ";
	line += blr_format(it->fmt, r.values);
	return line;
}

void blr_sort(std::vector<blr_record> &records)
{
	std::stable_sort(records.begin(), records.end(),
			 [](const blr_record &a, const blr_record &b) {
				 if (a.time_ns != b.time_ns)
					 return a.time_ns < b.time_ns;
				 if (a.file_index != b.file_index)
					 return a.file_index < b.file_index;
				 if (a.level != b.level)
					 return a.level < b.level;
				 return a.pos < b.pos;
			 });
}

bool blr_parse_levels(const char *text, std::uint32_t *mask)
{
	*mask = 0;
	if (!text || !*text)
		return false;
	const char *p = text;
	auto number = [&p](std::uint32_t *v) {
		if (*p < '0' || *p > '9')
			return false;
		*v = 0;
		while (*p >= '0' && *p <= '9') {
			*v = *v * 10 + static_cast<std::uint32_t>(*p - '0');
			if (*v >= BL_MAX_LEVELS)
				return false;
			p++;
		}
		return true;
	};
	for (;;) {
		std::uint32_t lo, hi;
		if (!number(&lo))
			return false;
		hi = lo;
		if (*p == '-') {
			p++;
			if (!number(&hi) || hi < lo)
				return false;
		}
		for (std::uint32_t l = lo; l <= hi; l++)
			*mask |= 1u << l;
		if (*p == '\0')
			return true;
		if (*p != ',')
			return false;
		p++;
	}
}

namespace {

// One path that blcat prints, and the file it reads for it now.
struct followed {
	const char *path;
	std::unique_ptr<blr_file> file;
	bool told_truncated = false;  // "file truncated" said for this file
};

// False when the file `f` reads no longer holds what blr_open validated: its
// size or its creation time changed (cut, or rewritten in place).
bool unchanged(blr_file &f)
{
	struct stat st;
	std::uint64_t created;
	return fstat(f.fd, &st) == 0 && static_cast<std::uint64_t>(st.st_size) == f.size &&
	       read_u64(f, BL_HDR_CREATED_NS, &created) && created == f.created_ns;
}

// Follow by name: the file to read from now on for `p` when its path names
// another valid trace, or its own file is valid again after a truncation;
// nullptr when `p` stays as it is. Notes what it sees on `err`.
std::unique_ptr<blr_file> follow_path(followed &p, std::FILE *err)
{
	blr_file &f = *p.file;
	if (!f.truncated && !unchanged(f))
		f.truncated = true;
	if (f.truncated && !p.told_truncated) {
		std::fprintf(err, "blcat: %s: file truncated\n", p.path);
		p.told_truncated = true;
	}
	struct stat st;
	if (stat(p.path, &st) == -1 || (!f.truncated && st.st_dev == f.dev && st.st_ino == f.ino))
		return nullptr;
	// Another file, or ours after a cut: taken once it is a valid trace.
	auto fresh = std::make_unique<blr_file>();
	if (!blr_open(*fresh, p.path).empty())
		return nullptr;
	const bool other = fresh->dev != f.dev || fresh->ino != f.ino;
	if (!other && !f.truncated)
		return nullptr;  // renamed away and back between stat and open
	if (other)
		std::fprintf(err, "blcat: %s has been replaced; following new file\n", p.path);
	return fresh;
}

}  // namespace

int blr_cat(std::span<const char *const> paths, const blr_cat_options &opt, std::FILE *out,
	    std::FILE *err)
{
	const std::size_t n = paths.size();
	std::vector<followed> files;
	for (std::size_t i = 0; i < n; i++) {
		files.push_back({paths[i], std::make_unique<blr_file>()});
		const std::string why = blr_open(*files[i].file, paths[i]);
		if (!why.empty()) {
			std::fprintf(err, "blcat: %s\n", why.c_str());
			return 1;
		}
	}
	blr_stats left;  // of the files replaced while following
	int status = 0;
	for (;;) {
		std::vector<blr_record> records;
		// Files replaced in this poll, kept until their last records are
		// rendered; their records' file_index is n + their index here.
		std::vector<std::unique_ptr<blr_file>> retired;
		for (std::size_t i = 0; i < n; i++) {
			if (opt.follow) {
				if (auto fresh = follow_path(files[i], err)) {
					blr_file &old = *files[i].file;
					if (!old.truncated) {
						blr_load_descs(old);  // its last records, as well as it can
						blr_collect(old, opt.level_mask,
							    static_cast<std::uint32_t>(n + retired.size()), records);
					}
					left.malformed += old.stats.malformed;
					left.torn += old.stats.torn;
					retired.push_back(std::move(files[i].file));
					files[i].file = std::move(fresh);
					files[i].told_truncated = false;
				}
				blr_file &f = *files[i].file;
				if (f.truncated)
					continue;  // until the path holds a valid trace again
				// Descriptors of call sites first used since the last poll.
				const std::string why = blr_load_descs(f);
				if (!why.empty()) {
					std::fprintf(err, "blcat: %s: %s\n", f.path.c_str(), why.c_str());
					return 1;
				}
			}
			blr_collect(*files[i].file, opt.level_mask, static_cast<std::uint32_t>(i), records);
		}
		blr_sort(records);
		for (const blr_record &r : records) {
			const blr_file &from = r.file_index < n ? *files[r.file_index].file : *retired[r.file_index - n];
			const std::string line = blr_render(from, r);
			std::fwrite(line.data(), 1, line.size(), out);
			std::fputc('\n', out);
		}
		std::fflush(out);
		if (!opt.follow) {
			// A file cut while it was read: what it held before is printed.
			for (const followed &p : files)
				if (p.file->truncated) {
					std::fprintf(err, "blcat: %s: truncated while being read\n", p.path);
					status = 1;
				}
			break;
		}
		if (opt.stop && *opt.stop)
			break;
		const timespec pause{opt.poll_ms / 1000, (opt.poll_ms % 1000) * 1000000L};
		nanosleep(&pause, nullptr);
		if (opt.stop && *opt.stop)
			break;
	}
	if (opt.summary) {
		blr_stats total = left;
		for (const followed &p : files) {
			total.malformed += p.file->stats.malformed;
			total.torn += p.file->stats.torn;
		}
		std::fprintf(err, "blcat: skipped %llu malformed and %llu overwritten records\n",
			     static_cast<unsigned long long>(total.malformed),
			     static_cast<unsigned long long>(total.torn));
	}
	return status;
}
