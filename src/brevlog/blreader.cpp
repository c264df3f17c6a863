// blreader.cpp -- reading trace files: header and descriptor validation,
// collection of the live records of each ring, printf-faithful rendering.
//
// Everything read from the file is untrusted: bounds are checked before each
// access, values are copied out with memcpy (no casts of file bytes to
// structs), and integers are widened before arithmetic so that no offset sum
// can wrap.
#include "blreader.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <type_traits>
#include <unistd.h>

namespace {

constexpr std::uint64_t BLR_MAX_RING = 1048576ull * 1024;  // the writer's largest level, bytes
constexpr std::uint64_t BLR_MAX_DESC_AREA = 64ull * 1024 * 1024;
constexpr std::uint32_t BLR_MAX_SPEC_NUMBER = 4096;  // widths/precisions beyond are shown literally
constexpr const char *BLR_MISSING = "<?>";

template <typename T> T load(const unsigned char *p)
{
	T v;
	std::memcpy(&v, p, sizeof v);
	return v;
}

// Loads a field the writer updates concurrently (head, desc_used, stamps).
template <typename T> T load_acquire(const unsigned char *p)
{
	return __atomic_load_n(reinterpret_cast<const T *>(p), __ATOMIC_ACQUIRE);
}

std::string u64s(std::uint64_t v) { return std::to_string(v); }

const unsigned char *level_entry(const unsigned char *base, std::uint32_t i)
{
	return base + BL_LEVEL_TABLE_OFF + static_cast<std::size_t>(i) * BL_LEVEL_ENTRY_SIZE;
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

// Records decode lazily into this buffer; a record is at most BL_MAX_RECORD.
struct record_copy {
	unsigned char bytes[BL_MAX_RECORD];
};

std::time_t to_time(std::uint64_t sec)
{
	return static_cast<std::time_t>(sec);
}

}  // namespace

blr_file::~blr_file()
{
	if (base && mapped)
		munmap(const_cast<unsigned char *>(base), size);
	if (fd != -1)
		close(fd);
}

std::string blr_check_header(std::span<const unsigned char> image)
{
	const unsigned char *b = image.data();
	const std::uint64_t n = image.size();
	if (n < sizeof BL_MAGIC || std::memcmp(b, BL_MAGIC, sizeof BL_MAGIC) != 0)
		return "not a trace file";
	if (n < 12)
		return "truncated (" + u64s(n) + " bytes, header is " + u64s(BL_HEADER_SIZE) + ")";
	const auto version = load<std::uint32_t>(b + 8);
	if (version != BL_VERSION)
		return "unsupported trace file version " + u64s(version);
	if (n < BL_HEADER_SIZE)
		return "truncated (" + u64s(n) + " bytes, header is " + u64s(BL_HEADER_SIZE) + ")";
	if (load<std::uint32_t>(b + 12) != BL_HEADER_SIZE)
		return "corrupt header (header size " + u64s(load<std::uint32_t>(b + 12)) + ")";
	const auto nlevels = load<std::uint32_t>(b + 16);
	if (nlevels < 1 || nlevels > BL_MAX_LEVELS)
		return "corrupt header (" + u64s(nlevels) + " levels)";
	const auto desc_off = load<std::uint64_t>(b + 24);
	const auto desc_size = load<std::uint64_t>(b + 32);
	if (desc_off != BL_HEADER_SIZE || desc_size == 0 || desc_size % 8 != 0 ||
	    desc_size > BLR_MAX_DESC_AREA)
		return "corrupt header (descriptor area " + u64s(desc_off) + "+" + u64s(desc_size) + ")";

	// Rings follow the descriptor area back to back.
	std::uint64_t expect = desc_off + desc_size;
	for (std::uint32_t i = 0; i < nlevels; i++) {
		const unsigned char *l = level_entry(b, i);
		const auto off = load<std::uint64_t>(l);
		const auto size = load<std::uint64_t>(l + 8);
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

std::string blr_open(blr_file &f, const char *path)
{
	f.path = path;
	f.fd = open(path, O_RDONLY | O_CLOEXEC);
	if (f.fd == -1)
		return f.path + ": " + std::strerror(errno);
	struct stat st;
	if (fstat(f.fd, &st) == -1)
		return f.path + ": " + std::strerror(errno);
	if (!S_ISREG(st.st_mode))
		return f.path + ": not a trace file";
	if (st.st_size == 0)
		return f.path + ": not a trace file (empty)";
	const std::size_t size = static_cast<std::size_t>(st.st_size);
	void *m = mmap(nullptr, size, PROT_READ, MAP_SHARED, f.fd, 0);
	if (m == MAP_FAILED)
		return f.path + ": " + std::strerror(errno);
	f.mapped = true;
	return blr_attach(f, {static_cast<const unsigned char *>(m), size}, path);
}

std::string blr_attach(blr_file &f, std::span<const unsigned char> image, const char *name)
{
	f.path = name;
	f.base = image.data();
	f.size = image.size();
	const std::string why = blr_check_header({f.base, f.size});
	if (!why.empty())
		return f.path + ": " + why;
	f.nlevels = load<std::uint32_t>(f.base + 16);
	f.desc_size = load<std::uint64_t>(f.base + 32);
	f.levels.resize(f.nlevels);
	f.next_pos.assign(f.nlevels, 0);
	for (std::uint32_t i = 0; i < f.nlevels; i++) {
		f.levels[i].ring_off = load<std::uint64_t>(level_entry(f.base, i));
		f.levels[i].ring_size = load<std::uint64_t>(level_entry(f.base, i) + 8);
	}
	const std::string d = blr_load_descs(f);
	return d.empty() ? d : f.path + ": " + d;
}

std::string blr_load_descs(blr_file &f)
{
	const unsigned char *area = f.base + BL_HEADER_SIZE;
	const std::uint64_t used =
		std::min(load_acquire<std::uint64_t>(f.base + 40), f.desc_size);
	std::vector<blr_desc> descs;
	std::uint64_t o = 0;
	while (o + BL_DESC_HDR_SIZE <= used) {
		const std::uint64_t at = BL_HEADER_SIZE + o;
		const std::string corrupt = "corrupt descriptor at offset " + u64s(at);
		const auto entry_len = load_acquire<std::uint32_t>(area + o);
		if (entry_len == 0)
			break;  // reserved but never written: the writer died there
		if (entry_len % 8 != 0 || entry_len < 24 || entry_len > f.desc_size - o)
			return corrupt;
		const auto magic = load_acquire<std::uint32_t>(area + o + 4);
		if (magic != BL_DESC_MAGIC) {
			if (magic != 0)
				return corrupt;
			o += entry_len;  // still being written
			continue;
		}
		const unsigned char *e = area + o;
		blr_desc d;
		d.msg_id = load<std::uint32_t>(e + 8);
		d.line = load<std::uint32_t>(e + 12);
		const std::uint32_t file_len = load<std::uint16_t>(e + 16);
		const std::uint32_t fmt_len = load<std::uint16_t>(e + 18);
		const std::uint32_t nargs = e[20];
		if (d.msg_id == 0 || nargs > BL_MAX_ARGS ||
		    BL_DESC_HDR_SIZE + nargs + file_len + fmt_len > entry_len)
			return corrupt;
		d.types.assign(e + BL_DESC_HDR_SIZE, e + BL_DESC_HDR_SIZE + nargs);
		for (std::uint8_t t : d.types)
			if (!valid_type(t))
				return corrupt;
		const char *text = reinterpret_cast<const char *>(e + BL_DESC_HDR_SIZE + nargs);
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
		case BL_T_CHARP: w = 2; break;
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
		case BL_T_U16: v.bits = load<std::uint16_t>(b + i); break;
		case BL_T_U32: v.bits = load<std::uint32_t>(b + i); break;
		case BL_T_U64: v.bits = load<std::uint64_t>(b + i); break;
		case BL_T_S32:
			v.bits = static_cast<std::uint64_t>(
				static_cast<std::int64_t>(load<std::int32_t>(b + i)));
			break;
		case BL_T_S64: v.bits = load<std::uint64_t>(b + i); break;
		case BL_T_CHARP: {
			const std::size_t tlen = load<std::uint16_t>(b + i);
			if (n - i - 2 < tlen)
				return false;
			v.text.assign(reinterpret_cast<const char *>(b + i + 2), tlen);
			w = 2 + tlen;
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
	record_copy copy;
	for (std::uint32_t lv = 0; lv < f.nlevels; lv++) {
		if (!(level_mask & (1u << lv)))
			continue;
		const std::uint64_t size = f.levels[lv].ring_size;
		const unsigned char *ring = f.base + f.levels[lv].ring_off;
		const unsigned char *head_field = level_entry(f.base, lv) + 16;
		const std::uint64_t head = load_acquire<std::uint64_t>(head_field);

		// Window of live records: [head - size, head), from where we stopped.
		std::uint64_t p = head > size ? head - size : 0;
		p = std::max(p, f.next_pos[lv]);
		p = (p + 7) & ~std::uint64_t{7};
		std::uint64_t resume = p;
		while (p < head && head - p >= BL_REC_HDR_SIZE) {
			const std::uint64_t off = p % size;
			if (size - off < BL_REC_HDR_SIZE) {
				p += size - off;  // no record starts this close to the end
				continue;
			}
			if (load_acquire<std::uint64_t>(ring + off) != ~p) {
				p += 8;
				continue;
			}
			const std::uint32_t len = load<std::uint32_t>(ring + off + 8);
			if (len < BL_REC_HDR_SIZE || len % 8 != 0 || len > BL_MAX_RECORD ||
			    len > size - off || len > head - p) {
				f.stats.malformed++;
				p += 8;
				continue;
			}
			std::memcpy(copy.bytes, ring + off, len);
			std::atomic_thread_fence(std::memory_order_acquire);
			const std::uint64_t head_now = load_acquire<std::uint64_t>(head_field);
			if (head_now > size && head_now - size > p) {
				f.stats.torn++;  // the writer overtook it while we copied
				p += 8;
				continue;
			}
			blr_record r;
			r.pos = p;
			r.level = lv;
			r.file_index = file_index;
			r.msg_id = load<std::uint32_t>(copy.bytes + 12);
			r.time_ns = load<std::uint64_t>(copy.bytes + 16);
			if (load<std::uint64_t>(copy.bytes) != ~p ||
			    !blr_decode_values({copy.bytes + BL_REC_HDR_SIZE, len - BL_REC_HDR_SIZE},
					       r.values)) {
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

int blr_cat(std::span<const char *const> paths, const blr_cat_options &opt, std::FILE *out,
	    std::FILE *err)
{
	std::vector<blr_file> files(paths.size());
	for (std::size_t i = 0; i < paths.size(); i++) {
		const std::string why = blr_open(files[i], paths[i]);
		if (!why.empty()) {
			std::fprintf(err, "blcat: %s\n", why.c_str());
			return 1;
		}
	}
	for (;;) {
		std::vector<blr_record> records;
		for (std::size_t i = 0; i < files.size(); i++) {
			// Follow: descriptors of call sites first used since the last poll.
			if (opt.follow) {
				const std::string why = blr_load_descs(files[i]);
				if (!why.empty()) {
					std::fprintf(err, "blcat: %s: %s\n", files[i].path.c_str(),
						     why.c_str());
					return 1;
				}
			}
			blr_collect(files[i], opt.level_mask, static_cast<std::uint32_t>(i), records);
		}
		blr_sort(records);
		for (const blr_record &r : records) {
			const std::string line = blr_render(files[r.file_index], r);
			std::fwrite(line.data(), 1, line.size(), out);
			std::fputc('\n', out);
		}
		std::fflush(out);
		if (!opt.follow || (opt.stop && *opt.stop))
			break;
		const timespec pause{opt.poll_ms / 1000, (opt.poll_ms % 1000) * 1000000L};
		nanosleep(&pause, nullptr);
		if (opt.stop && *opt.stop)
			break;
	}
	if (opt.summary) {
		blr_stats total;
		for (const blr_file &f : files) {
			total.malformed += f.stats.malformed;
			total.torn += f.stats.torn;
		}
		std::fprintf(err, "blcat: skipped %llu malformed and %llu overwritten records\n",
			     static_cast<unsigned long long>(total.malformed),
			     static_cast<unsigned long long>(total.torn));
	}
	return 0;
}
