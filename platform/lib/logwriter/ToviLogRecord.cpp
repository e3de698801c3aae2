// ToviLogRecord.cpp - a record frees what it owns: the caller's value clone,
// through its virtual destructor.
#include "logwriter/ToviLogRecord.h"

#include <AsnType.h>

ToviLogRecord::~ToviLogRecord() { delete m_pAsn; }
