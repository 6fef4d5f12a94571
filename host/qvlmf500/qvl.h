#pragma once

/// The host layer: everything that a program does with tags and smart cards, as objects that release themselves.
/// Header-only over the library's exported interface; link with the library. Namespace qvl.
///
///     qvl::Reader reader;
///     qvl::Tag tag = reader.waitForTag(std::chrono::seconds(10));
///     std::cout << tag.uid().text() << ' ' << tag.typeName() << '\n';

#if __cplusplus < 202002L
#error "The host layer needs C++20."
#endif

#include "qvl/Access.h"
#include "qvl/Blocks.h"
#include "qvl/Bytes.h"
#include "qvl/Card.h"
#include "qvl/Error.h"
#include "qvl/Geometry.h"
#include "qvl/Image.h"
#include "qvl/Key.h"
#include "qvl/KeyRing.h"
#include "qvl/Limit.h"
#include "qvl/Ndef.h"
#include "qvl/Reader.h"
#include "qvl/Tag.h"
#include "qvl/Uid.h"
#include "qvl/Watch.h"
