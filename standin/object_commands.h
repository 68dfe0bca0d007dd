// The commands about the Data Manager's objects; dump tells the attributes,
// too.
#pragma once

#include "standin/request.h"

namespace standin
{

void Create(const Request &request, json_t *reply);
void Set(const Request &request, json_t *reply);
void Delete(const Request &request, json_t *reply);
void Status(const Request &request, json_t *reply);
void RawObject(const Request &request, json_t *reply);
void List(const Request &request, json_t *reply);
void Show(const Request &request, json_t *reply);

// Everything that a mirror of both managers is to hold, at one moment: objects,
// none while the Data Manager isn't ready, and attributes with their groups.
void Dump(const Request &request, json_t *reply);

} // namespace standin
