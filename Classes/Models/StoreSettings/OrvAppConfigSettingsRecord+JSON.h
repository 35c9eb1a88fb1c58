#pragma once
// A settings record as one JSON object, for tools that show records to people or to scripts. Every
// property appears under its own name; nil is JSON null, dates are ISO 8601 strings in UTC.
#include <boost/json/object.hpp>

#include "OrvAppConfigSettingsRecord.h"

boost::json::object OrvAppConfigSettingsRecordJSONObject(const OrvAppConfigSettingsRecord& record);
