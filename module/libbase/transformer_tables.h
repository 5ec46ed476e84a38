// Internal to the conversions: fixed names that go with event numbers.
#ifndef WL_TRANSFORMER_TABLES_H
#define WL_TRANSFORMER_TABLES_H

// The canonical wide-field name of a file event (6 to 10), or null.
const char* canonicalFileEventName(int number);

#endif
