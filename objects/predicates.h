// Predicates that decide whether a catalogue row applies to an object of its
// type: 0 means yes, anything else that the search goes on. The object is
// bounded by its objSize; the parent isn't looked at and may be NULL.
#pragma once

#include "objects/schema/object_type.h"
#include "platform/zoil.h"

namespace qdb
{

// SMART data, type 0x31B: PCIe drives; solid-state SAS and SATA drives. Hard
// disks match neither and are mirrored nowhere.
int Is_NVMe(DataObjHeader *pDOH, const DataObjHeader *pParentDOH);
int Is_SAS_SATA(DataObjHeader *pDOH, const DataObjHeader *pParentDOH);

// Empty slots, type 0x45: those of the RAID subsystem; all others.
int Is_Raid_Empty_Slot_Obj(DataObjHeader *pDOH,
                           const DataObjHeader *pParentDOH);
int Is_Empty_Slot_Obj(DataObjHeader *pDOH, const DataObjHeader *pParentDOH);

// Setup enumerations: always 0. Repairs the object's dependency list offset,
// which some libraries deliver with flags in its upper bits; the one place
// where an object is changed.
int GetDependencyListOffsetHiiEnum(DataObjHeader *pDOH,
                                   const DataObjHeader *pParentDOH);

// Whether the row is about the object, by its predicate.
bool Applies(const ObjTypeRow &row, DataObjHeader *pDOH,
             const DataObjHeader *pParentDOH);

} // namespace qdb
