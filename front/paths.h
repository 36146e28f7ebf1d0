#pragma once

/// The three path operations of the platform's strings that the front needs.

#include <string>

/// The last component, slashes at the end not counted: "b.app" of "/a/b.app/", "/" of "/".
std::string lastPathComponent(std::string path);

/// `path`, one "/", and `component`.
std::string appendPathComponent(std::string path, const std::string& component);
