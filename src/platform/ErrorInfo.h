// The error objects behind GetErrorInfo: what a failed call of a component object leaves on its
// thread, made from the diagnostic the call recorded (platform/Diagnostic.h).
//
//   diag::Record("no-member", "main.NOPE.map", "no such member in class.mag");
//   PublishDiagnostic("QXGroupMgr.FileManager");   // GetErrorInfo now gives that description,
//                                                  // and IQXErrorCode::GetCode "no-member"
//   PublishDiagnostic(...) with nothing recorded    // empties the slot: the call succeeded
#pragma once

#include <string_view>

#include "qxgroupmgr/com.h"

namespace qx {

// A new error object (reference count 1) with the given source, description and diagnostic
// code (1252 text; the code is empty for a failure without one). Null when memory runs out.
IErrorInfo* NewErrorInfo(std::string_view source, std::string_view description,
                         std::string_view code = {});

// Sets the thread's error information to the current diagnostic, described as
// diag::Describe() gives it, or clears it when none was recorded.
void PublishDiagnostic(std::string_view source);

}  // namespace qx
