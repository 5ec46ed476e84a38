// The library's two exported entry points. The caller owns the object and
// destroys it with delete, as the interface's contract says.
#include <memory>

#include "base_model_engine.h"
#include "rasp_model_engine.h"

BaseInterface* BaseFactory::getBaseInterface() { return std::make_unique<baseeng::BaseModelEngine>().release(); }

RaspInterface* RaspFactory::getRaspInterface() { return std::make_unique<baseeng::RaspModelEngine>().release(); }
