# Model management and the reporting that goes with it: catalogue files, model
# commands, alarm feedback, open-process tracking, open-port report, origin-log
# upload.
wl_module_area(wl_models
  whitelist_api.cpp
  whitelist_api_catalogue.cpp
  whitelist_api_task.cpp
  whitelist_api_feedback.cpp
  whitelist_api_tracking.cpp
  whitelist_impl_openport.cpp
  whitelist_impl_orglog.cpp)

# The calls into the engines, apart so that tests of wl_models can script them.
wl_module_area(wl_models_engine_calls whitelist_api_engine_calls.cpp)
