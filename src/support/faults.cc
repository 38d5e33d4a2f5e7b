#include "support/faults.h"

namespace adcdf {
namespace {
FaultInjector* g_injector = nullptr;
}  // namespace

FaultInjector* set_fault_injector(FaultInjector* injector) {
  FaultInjector* previous = g_injector;
  g_injector = injector;
  return previous;
}

FaultInjector* fault_injector() {
  return g_injector;
}

}  // namespace adcdf
