#pragma once

// What nearly every test includes, compiled once for all of them. Each file still names what it uses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>
