// What a create and a refresh do around their steps, to keep an object's row
// and signals in order (core/object_order.h).
#pragma once

#include "core/object_order.h"
#include "core/status.h"
#include "platform/zoil.h"

namespace qdb
{

// Runs the steps with the object claimed, from the first look at its row to the
// signal; returns their status. An object that has changed since it was fetched
// is refused untouched, with 8216. What the steps found is known from here on,
// also that there is no row or that the OID is mapped: a handler under way may
// have fetched an older object. Nothing is known of an object that could not be
// read.
template <typename Steps>
int RunClaimed(const DataObjHeader *pDOH, Steps steps)
{
    ObjectClaim claim(pDOH->objID, AgeOf(pDOH));
    if (claim.RefusesObject())
    {
        return ZO_STATUS_INVALID_VALUE;
    }
    const int status = steps();
    if (status != ZO_STATUS_INVALID_VALUE)
    {
        claim.NoteKnown();
    }
    return status;
}

} // namespace qdb
