// The workbench's client side by the names that tests use: handles, opens, requests, extended attributes, all with the
// status that came back.
#pragma once

#include <workbench/ea.h>
#include <workbench/requests.h>
#include <workbench/trace.h>

namespace support {

using workbench::CancelAll;
using workbench::Event;
using workbench::Handle;
using workbench::kShareAll;
using workbench::List;
using workbench::Listing;
using workbench::Lock;
using workbench::Open;
using workbench::OpenRequest;
using workbench::OpenResult;
using workbench::Outcome;
using workbench::Read;
using workbench::ReadText;
using workbench::Request;
using workbench::Text;
using workbench::TraceLog;
using workbench::Unlock;

using workbench::Flush;
using workbench::kAtEnd;
using workbench::kAtPosition;
using workbench::NameOf;
using workbench::Query;
using workbench::QueryAs;
using workbench::QueryVolume;
using workbench::Rename;
using workbench::Set;
using workbench::SetAllocation;
using workbench::SetBasic;
using workbench::SetDelete;
using workbench::SetSize;
using workbench::SetVolume;
using workbench::Write;

using workbench::EaAnswer;
using workbench::EaList;
using workbench::EaNameList;
using workbench::EaQuery;
using workbench::EaTexts;
using workbench::QueryEas;
using workbench::SetEas;

} // namespace support
