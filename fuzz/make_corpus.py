#!/usr/bin/env python3
# make_corpus.py -- writes the starting corpus of the fuzz targets into
# fuzz/corpus/<target>/: well-formed inputs of each kind and a few that are
# broken in one field, so every target starts past its first checks.
# Deterministic; run again after changing it and commit the result.
import os
import struct

top = os.path.dirname(os.path.abspath(__file__))
OUR_DISC = 0x0A0B0C0D  # fuzz_env.h


def put(target, name, data):
    d = os.path.join(top, 'corpus', target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), 'wb') as f:
        f.write(data)


def bfd(my_disc=0x1000, your_disc=OUR_DISC, state=1, flags=0x02, mult=3, length=24, vers=1):
    return struct.pack('!BBBBIIIII', vers << 5, state << 6 | flags, mult, length,
                       my_disc, your_disc, 100000, 200000, 0)


def frame(payload, src_ip='127.0.0.1', sport=49152, labels=(), ihl=5, proto=17, eth=None):
    mac = b'\x02\x00\x00\x00\x00\x01' + b'\x02\x00\x00\x00\x00\x02'
    if eth is None:
        eth = 0x8847 if labels else 0x0800
    f = mac + struct.pack('!H', eth)
    for lse in labels:
        f += struct.pack('!I', lse)
    ip = bytearray(4 * ihl)
    ip[0] = 0x40 | ihl
    ip[8] = 64
    ip[9] = proto
    ip[12:16] = bytes(int(x) for x in src_ip.split('.'))
    ip[16:20] = bytes([127, 0, 0, 1])
    f += bytes(ip) + struct.pack('!HHHH', sport, 7784, 8 + len(payload), 0) + payload
    return f


# frame path
put('fuzz_frame', 'plain_down', frame(bfd()))
put('fuzz_frame', 'plain_up_poll', frame(bfd(state=3, flags=0x22)))
put('fuzz_frame', 'plain_unreachable', frame(bfd(my_disc=0x2000), src_ip='198.51.100.7'))
put('fuzz_frame', 'mpls_label0', frame(bfd(my_disc=0x3000), labels=(0x00000140,)))
put('fuzz_frame', 'mpls_two_labels', frame(bfd(), labels=(0x00000040, 0x00000140)))
put('fuzz_frame', 'ip_options', frame(bfd(my_disc=0x4000), ihl=7))
put('fuzz_frame', 'auth_len28', frame(bfd(flags=0x06, length=28) + b'\x01\x04\x00\x00'))
put('fuzz_frame', 'truncated', frame(bfd())[:60])
put('fuzz_frame', 'tcp', frame(bfd(), proto=6, labels=(0x00000140,)))
put('fuzz_frame', 'ipv6_ethertype', frame(bfd(), eth=0x86DD))
put('fuzz_frame', 'wrong_your_disc', frame(bfd(your_disc=5)))
put('fuzz_frame', 'src_port_7784', frame(bfd(), sport=7784))


# control channel
def nl(typ, flags, payload, length=None):
    n = 16 + len(payload) if length is None else length
    return struct.pack('=IHHII', n, typ, flags, 1, 0) + payload


def cfg(disc, min_rx, src, admin):
    a, b, c, d = (int(x) for x in src.split('.'))
    return struct.pack('=III', disc, min_rx, a << 24 | b << 16 | c << 8 | d) + bytes([admin, 0, 0, 0])


put('fuzz_netlink', 'set_same_source', nl(16, 1, cfg(OUR_DISC, 50000, '127.0.0.1', 0)))
put('fuzz_netlink', 'set_new_source', nl(16, 1, cfg(9, 3300, '192.0.2.1', 1)))
put('fuzz_netlink', 'two_messages', nl(16, 1, cfg(1, 1, '192.0.2.1', 0)) + nl(16, 1, cfg(2, 2, '127.0.0.1', 2)))
put('fuzz_netlink', 'unknown_then_set', nl(17, 1, b'\x07\x00\x00\x00') + nl(16, 1, cfg(3, 3, '127.0.0.1', 0)))
put('fuzz_netlink', 'no_request_flag', nl(16, 0, cfg(4, 4, '127.0.0.1', 0)))
put('fuzz_netlink', 'len29', nl(16, 1, cfg(5, 5, '127.0.0.1', 1)[:13], length=29))
put('fuzz_netlink', 'short', b'\x10\x00\x00\x00\x10\x00\x01\x00\x00\x00\x00\x00\x00\x00\x00')


# trace reader: a small, valid trace file (format in src/brevlog/brevlog.h)
def trace_file():
    desc_size, ring_sizes = 512, [1024, 1024]
    hdr = bytearray(4096)
    hdr[0:8] = b'BREVLOG\n'
    struct.pack_into('<IIII', hdr, 8, 1, 4096, len(ring_sizes), 4242)
    struct.pack_into('<QQQ', hdr, 24, 4096, desc_size, 0)
    struct.pack_into('<II', hdr, 48, 3, 0)
    struct.pack_into('<Q', hdr, 56, 1700000000 * 10**9)
    off = 4096 + desc_size
    for i, size in enumerate(ring_sizes):
        struct.pack_into('<QQQQ', hdr, 64 + 32 * i, off, size, 0, 0)
        off += size
    descs = bytearray()
    rings = [bytearray(s) for s in ring_sizes]
    for msg_id, (fmt, types) in enumerate([('RX: socket ready with %lu bytes', [3]),
                                           ('TX: my_disc %u dst_ip %s port %u state %u', [5, 2, 4, 7])], 1):
        file = b'reflectorRx.cpp'
        body = struct.pack('<IIIIHHB', 0, 0x43534544, msg_id, 100 + msg_id, len(file), len(fmt), len(types))
        body += bytes(types) + file + fmt.encode()
        body += b'\0' * (-len(body) % 8)
        body = struct.pack('<I', len(body)) + body[4:]
        descs += body
    def rec(level, pos, msg_id, values):
        r = struct.pack('<QIIQ', 0, 0, msg_id, 1700000000 * 10**9 + pos) + values
        r += b'\0' * (-len(r) % 8)
        r = struct.pack('<QII', (~pos) & (2**64 - 1), len(r), msg_id) + r[16:]
        rings[level][pos:pos + len(r)] = r
        return len(r)
    n0 = rec(0, 0, 1, b'\x03' + struct.pack('<i', 66))
    n1 = rec(1, 0, 2, b'\x05' + struct.pack('<I', 7) + b'\x02' + struct.pack('<H', 9) + b'192.0.2.2'
             + b'\x04' + struct.pack('<H', 49152) + b'\x07\x03')
    struct.pack_into('<Q', hdr, 40, len(descs))
    struct.pack_into('<Q', hdr, 64 + 16, n0)
    struct.pack_into('<Q', hdr, 64 + 32 + 16, n1)
    return bytes(hdr) + bytes(descs) + b'\0' * (desc_size - len(descs)) + b''.join(bytes(r) for r in rings)


put('fuzz_blreader', 'small_valid', trace_file())
put('fuzz_blreader', 'header_only', trace_file()[:4096])
put('fuzz_blreader', 'not_a_trace', b'BREVLOX\n' + b'\0' * 56)


# store contents (cut stores are zero-extended to 69720 bytes by the target)
def header(**kw):
    names = ['rx_drops', 'tx_sends', 'rx_valid_pkts']
    small = ['pkt_truncated', 'bad_version', 'invalid_pkt_len', 'invalid_src_port', 'demand_mode_unset',
             'invalid_detect_mult', 'invalid_my_disc', 'your_disc_unmatch', 'invalid_bfd_state', 'unsupported',
             'invalid_pkt_format', 'sendto_fail', 'wrong_len_sent', 'rx_hash_miss', 'rx_hash_hit', 'rx_hash_trim']
    return struct.pack('<QQQ', *(kw.get(n, 0) for n in names)) + struct.pack('<16I', *(kw.get(n, 0) for n in small))


def slot(disc, ip, n):
    s = struct.pack('<IIIIIIII', disc, ip, 100000, 200000, 0, 3000, 3400, OUR_DISC)
    s += struct.pack('<HBBBBBBBBBBBB', 49152, 3, 3, 1, 0, 1, 1, 0, 0, 24, 3, 3, 0) + b'\0\0'
    s += struct.pack('<QQ', n, 3300 * (n - 1))
    s += struct.pack('<qq', 1700000000, 5) + struct.pack('<qq', 1699999000, 0)
    s += struct.pack('<Q', n) + struct.pack('<qq', 1700000000, 7) + struct.pack('<qq', 1699999000, 1)
    assert len(s) == 136
    return s


put('fuzz_shmstat', 'empty', b'')
put('fuzz_shmstat', 'one_session', header(rx_valid_pkts=10, tx_sends=10, rx_hash_miss=1, rx_hash_hit=9)
    + b'\0' * 136 * 511 + slot(1000, 0x0200000c, 10))
put('fuzz_shmstat', 'counters_only', header(rx_drops=5, rx_valid_pkts=600, tx_sends=598, sendto_fail=2,
                                             rx_hash_hit=88, unsupported=5))
