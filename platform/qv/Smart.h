#pragma once

#include <QSharedPointer>

namespace qvb {

/// Shared handle: the object lives while any handle refers to it.
template<typename T> using smart = QSharedPointer<T>;

} // namespace qvb
