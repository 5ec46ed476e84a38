# Event translation: records, tables and every conversion into them.
wl_module_area(wl_transformer
  libbase/event_info.cpp
  libbase/transformer.cpp
  libbase/transformer_json.cpp
  libbase/transformer_native.cpp
  libbase/transformer_origin.cpp
  libbase/transformer_rasp.cpp
  libbase/transformer_alarm.cpp
  libbase/transformer_filter.cpp)
