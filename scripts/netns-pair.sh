# netns-pair.sh -- sourced by the demo, soak and benchmark scripts: two
# network namespaces joined by a veth pair, the reflector's side vr0 and the
# initiator's side vi0, each with one address of a /24.
#
#   netns_pair_up NS_R ADDR_R NS_I ADDR_I
#   netns_pair_down NS_R NS_I          (quiet; safe when they do not exist)

netns_pair_up() {
	local ns_r=$1 addr_r=$2 ns_i=$3 addr_i=$4
	ip netns add "$ns_r"
	ip netns add "$ns_i"
	ip -n "$ns_r" link set lo up
	ip -n "$ns_i" link set lo up
	ip -n "$ns_r" link add vr0 type veth peer name vi0 netns "$ns_i"
	ip -n "$ns_r" addr add "$addr_r/24" dev vr0
	ip -n "$ns_i" addr add "$addr_i/24" dev vi0
	ip -n "$ns_r" link set vr0 up
	ip -n "$ns_i" link set vi0 up
}

netns_pair_down() {
	ip netns del "$2" 2>/dev/null || true
	ip netns del "$1" 2>/dev/null || true
}
