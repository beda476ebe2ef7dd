#include "tslb_settings.h"

tslb_configuration_t lib_config;
char tslb_test_mode = static_cast<char>(0xFF);
int tslb_testidx = 0;
uint8_t tslb_tsdb_mode = 0xFF;
char tslb_qxwdir[1025];
uint8_t tstl_dont_merge_indr_slots = 1;
