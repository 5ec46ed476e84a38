# The two engines over the model library, and the engine switches, timers
# and log retention around them.
wl_module_area(wl_engines
  libbase/base_support.cpp
  libbase/base.cpp
  libbase/base_pipeline.cpp
  libbase/base_timing.cpp
  libbase/base_report.cpp
  libbase/rasp.cpp
  libbase/rasp_pipeline.cpp
  libbase/rasp_timing.cpp
  libbase/rasp_report.cpp
  whitelist_impl_engine.cpp
  whitelist_api_engine.cpp)
