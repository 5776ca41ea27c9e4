// The one engine record, made by start-up; every part of the engine reads it.
#include "Kestrane_engine.h"

__mv_ks__engine* __ksEngine = nullptr;
