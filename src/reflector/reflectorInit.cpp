// reflectorInit.cpp -- placeholder until the start-up path lands.
#include "reflector.h"
#include "trace.h"

const char *const DEFAULT_NS = "default";
reflector_config reflector_cfg;
bl_log *bl_handle;

reflector_vrf *vrf_init() { return nullptr; }
int reflector_init(reflector_vrf *) { return 0; }
int init_socket(reflector_vrf *) { return 0; }
int init_out_socket(reflector_vrf *) { return 0; }
void shm_store_name(char name[SHM_NAME_LEN], const char *) { name[0] = 0; }
const char *bfd_state_name(std::uint8_t) { return "unknown"; }
