// The questions QXPackageInfo asks of a parsed IMS manifest, apart from the object, so they can
// be asked of any loaded document.
//
// A path lookup walks tag by tag, each step the shallowest, then first, element with that tag at
// or below the element the previous step found:
//   Title: imsmd:title > imsmd:langstring
//   <lom><general><title><langstring>Area</langstring></title></general></lom>    => "Area"
//
// A requirement lookup finds, in the first imsmd:technical section, the langstring whose content
// begins with the label, climbs three parents (value, type, requirement) and takes that
// requirement's imsmd:name > imsmd:value > imsmd:langstring:
//   <requirement><type><value><langstring>Learning Tools</langstring></value></type>
//                <name><value><langstring>QX-84</langstring></value></name></requirement>
//   LearningTool ("Learning Tool")                                                => "QX-84"
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "archive/VxXml.h"
#include "qxgroupmgr/com.h"

namespace qx::manifest {

// Every "&#60;" becomes "<", then every "&#62;" becomes ">" (references the manifest's writer
// escaped once more than XML needs):  "a &#60;b&#62;" => "a <b>";  "&#38;#60;" unchanged.
std::string ReplaceAngleReferences(std::string text);

// The content of the element the path ends at, references replaced; empty when a step finds
// nothing (then `found` is false).
std::string LookupPath(const VxXml& document, std::span<const char* const> tags, bool& found);

// The named requirement for a label such as "Learning Tool": S_OK with its name, S_FALSE with ""
// when a step finds nothing.
HRESULT LookupRequirement(const VxXml& document, std::string_view label, std::string& out);

}  // namespace qx::manifest
