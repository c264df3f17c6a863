// brevlog.cpp -- placeholder: tracing off until the writer lands.
#include "brevlog.h"

const char *bl_type_name(std::uint8_t) { return "unknown"; }
bl_log *bl_initialize_handle(const char *, const char *) { return nullptr; }
bool bl_isInitialized(const bl_log *) { return false; }
void bl_close(bl_log *) {}
const char *bl_path(const bl_log *) { return ""; }
int bl_msgDescSize() { return 0; }
void bl_msgDescInit(bl_log *, void *, std::uint32_t *, const char *, int) {}
void bl_startMsg(bl_log *, std::uint64_t *, std::uint32_t, int) {}
void bl_put_fmt_bool(bl_log *, void *, const bool *) {}
void bl_put_fmt_charp(bl_log *, void *, const char *const *) {}
void bl_put_fmt_s32(bl_log *, void *, const std::int32_t *) {}
void bl_put_fmt_u16(bl_log *, void *, const std::uint16_t *) {}
void bl_put_fmt_u32(bl_log *, void *, const std::uint32_t *) {}
void bl_put_fmt_u64(bl_log *, void *, const std::uint64_t *) {}
void bl_put_fmt_u8(bl_log *, void *, const std::uint8_t *) {}
void bl_put_fmt_s64(bl_log *, void *, const std::int64_t *) {}
void bl_put_type_bool(bl_log *, int, const bool *) {}
void bl_put_type_charp(bl_log *, int, const char *const *) {}
void bl_put_type_s32(bl_log *, int, const std::int32_t *) {}
void bl_put_type_u16(bl_log *, int, const std::uint16_t *) {}
void bl_put_type_u32(bl_log *, int, const std::uint32_t *) {}
void bl_put_type_u64(bl_log *, int, const std::uint64_t *) {}
void bl_put_type_u8(bl_log *, int, const std::uint8_t *) {}
void bl_put_type_s64(bl_log *, int, const std::int64_t *) {}
void bl_addMsg(void *, const char *) {}
void bl_finish(void *) {}
void bl_endMsg(bl_log *, int) {}
