#include "model_records.h"

// Scalars are zeroed so that a command that leaves a key out has a defined
// outcome.
_USR_INPUT::_USR_INPUT() : oprType(0), oprReserved(0), learnTime(0), switchValue(0), inputReserved(0) {}

_USR_INPUT::~_USR_INPUT() {}
