// Version texts after their markers, so that a search of the built program finds them. They stand
// together because the version banner prints all of them, also those of modules above it.
#pragma once

#include <string_view>

namespace ka {

inline constexpr std::string_view kModuleMarker = "=@@= ";
inline constexpr std::string_view kReleaseMarker = "==@@== ";

inline constexpr char kRelease[] = "==@@== 3.2.0.320";
inline constexpr char kReleaseDate[] = "==@@== 10 Oct 2002";

inline constexpr char kDbVersion[] = "=@@= db:\tversion 1.0";
inline constexpr char kImgVersion[] = "=@@= img:\tversion 2.0";
inline constexpr char kLibVersion[] = "=@@= lib:\tversion 3.2";
inline constexpr char kMemVersion[] = "=@@= mem:\tversion 1.5";
inline constexpr char kMsgVersion[] = "=@@= msg:\tversion 1.0";
inline constexpr char kTransVersion[] = "=@@= trans:\tversion 1.0";

// The text after a module's marker.
inline const char* module_version(const char* marked) { return marked + kModuleMarker.size(); }
// The text after a release marker.
inline const char* release_text(const char* marked) { return marked + kReleaseMarker.size(); }

}  // namespace ka
