// Storing a value.
#pragma once

#include "manager/manager_record.h"
#include "manager/status_variable.h"
#include "product/status.h"

// What an update does once the variable is found. data may be a caller's memory.
Status UpdateValue(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size);
