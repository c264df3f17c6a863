# netns-pair.sh -- sourced by the demo, soak and benchmark scripts: two
# network namespaces joined by a veth pair, the reflector's side vr0 and the
# initiator's side vi0, each with one address of a /24; and the keeping of
# the daemon's global pid file, which a daemon these scripts start writes over.
#
#   run_setup NAME                     (ns_r, ns_i, addr_r, addr_i, a work
#                                       directory in work; keeps the pid file)
#   netns_pair_up NS_R ADDR_R NS_I ADDR_I
#   netns_pair_down NS_R NS_I          (quiet; safe when they do not exist)
#   pid_file_restore WORKDIR           (on the way out: back as it was)

run_setup() {
	ns_r=$1-r-$$
	ns_i=$1-i-$$
	addr_r=192.0.2.1
	addr_i=192.0.2.2
	work=$(mktemp -d "/tmp/$1-$$-XXXXXX")
	pid_file_keep "$work"
}

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

ORV_PID_FILE=/var/run/orvalindwarden.pid

pid_file_keep() {
	if [ -e "$ORV_PID_FILE" ]; then cp -p "$ORV_PID_FILE" "$1/pid_file.saved"; fi
}

pid_file_restore() {
	if [ -e "$1/pid_file.saved" ]; then cp -p "$1/pid_file.saved" "$ORV_PID_FILE"; else rm -f "$ORV_PID_FILE"; fi
}
