# The message bus: the contract, the subscriber, the publisher and the
# telemetry bridge.
wl_module_area(wl_bus
  libbase/mb_contract.cpp
  libbase/register.cpp
  whitelist_event.cpp
  whitelist_invoke.cpp
  whitelist_mb.cpp)
