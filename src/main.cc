// ekadcdf: follows a mail server's audit file and converts its sections into CDF records.
#include "app/outer_block.h"

int main(int argc, char** argv) {
  return adcdf::run_daemon(argc, argv);
}
