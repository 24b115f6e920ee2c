#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <pugixml.hpp>

#include "tools/vehicle/Replay.h"

namespace vlmVehicle {

namespace {

constexpr double degree = 3.14159265358979323846 / 180;
constexpr double earthRadius = 6371000;  // m

bool toNumber(const char* text, double& out) {
    char* end = nullptr;
    out = std::strtod(text, &end);
    while (*end == ' ' || *end == '\n' || *end == '\r' || *end == '\t') {
        ++end;
    }
    return end != text && *end == '\0' && std::isfinite(out);
}

/// Accepts "2024-03-01T07:15:20Z", also with fractions of a second and with a zone such as "+01:00".
bool toSeconds(const char* text, double& out) {
    std::tm parts{};
    const char* rest = strptime(text, "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) {
        return false;
    }
    out = static_cast<double>(timegm(&parts));
    if (*rest == '.') {
        char* end = nullptr;
        out += std::strtod(rest, &end);
        rest = end;
    }
    if (*rest == '+' || *rest == '-') {
        const double sign = *rest == '+' ? -1 : 1;
        int hours = 0;
        int minutes = 0;
        // NOLINTNEXTLINE(cert-err34-c): two digits fit
        if (std::sscanf(rest + 1, "%2d:%2d", &hours, &minutes) != 2) {
            return false;
        }
        out += sign * (hours * 3600 + minutes * 60);
        return true;
    }
    return *rest == 'Z' || *rest == '\0';
}

double wayBetween(const GpxTrack::Point& a, const GpxTrack::Point& b) {
    const double north = (b.latitude - a.latitude) * degree;
    const double east =
        (b.longitude - a.longitude) * degree * std::cos((a.latitude + b.latitude) / 2 * degree);
    return earthRadius * std::hypot(north, east);
}

double courseBetween(const GpxTrack::Point& a, const GpxTrack::Point& b) {
    const double north = b.latitude - a.latitude;
    const double east = (b.longitude - a.longitude) * std::cos((a.latitude + b.latitude) / 2 * degree);
    const double angle = std::atan2(east, north) / degree;
    return angle < 0 ? angle + 360 : angle;
}

std::size_t lineAt(const std::string& text, std::ptrdiff_t offset) {
    const auto end =
        text.begin() + std::clamp<std::ptrdiff_t>(offset, 0, static_cast<std::ptrdiff_t>(text.size()));
    return 1 + static_cast<std::size_t>(std::count(text.begin(), end, '\n'));
}

/// Tags may have a namespace prefix ("gpx:trkpt").
bool isTag(const pugi::xml_node& node, const char* tag) {
    const char* name = node.name();
    const char* colon = std::strchr(name, ':');
    return std::strcmp(colon != nullptr ? colon + 1 : name, tag) == 0;
}

pugi::xml_node childOf(const pugi::xml_node& node, const char* tag) {
    for (const auto& child : node.children()) {
        if (isTag(child, tag)) {
            return child;
        }
    }
    return {};
}

/// Finds speed or course, which are members of the point (GPX 1.0) or of its extensions.
bool extension(const pugi::xml_node& point, const char* tag, double& out) {
    const auto found = point.find_node([&](const pugi::xml_node& node) { return isTag(node, tag); });
    return !found.empty() && toNumber(found.text().get(), out);
}

}  // namespace

bool GpxTrack::readFile(const std::string& path, GpxTrack& out, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file) {
        error = path + ": cannot be read: " + std::strerror(errno);
        return false;
    }
    return read(text, path, out, error);
}

namespace {

/// A track point as the file has it.
struct FilePoint {
    GpxTrack::Point point{};
    bool hasSpeed = false;
    bool hasHeading = false;
};

/// Returns why the node is no track point; an empty text if it is one.
std::string readPoint(const pugi::xml_node& node, FilePoint& out) {
    GpxTrack::Point& point = out.point;
    if (!toNumber(node.attribute("lat").value(), point.latitude) || std::abs(point.latitude) > 90) {
        return "track point without a latitude from -90 to 90 (\"" +
               std::string(node.attribute("lat").value()) + "\")";
    }
    if (!toNumber(node.attribute("lon").value(), point.longitude) || std::abs(point.longitude) > 180) {
        return "track point without a longitude from -180 to 180 (\"" +
               std::string(node.attribute("lon").value()) + "\")";
    }
    const auto time = childOf(node, "time");
    if (time.empty() || !toSeconds(time.text().get(), point.time)) {
        return "track point without a time such as 2024-03-01T07:15:20Z (\"" +
               std::string(time.text().get()) + "\")";
    }
    if (const auto ele = childOf(node, "ele"); !ele.empty() && !toNumber(ele.text().get(), point.altitude)) {
        return "elevation \"" + std::string(ele.text().get()) + "\" is no number";
    }
    out.hasSpeed = extension(node, "speed", point.speed);
    out.hasHeading = extension(node, "course", point.heading);
    return "";
}

/// Returns the track's points; their times count from the first one.
std::vector<GpxTrack::Point> derived(const std::vector<FilePoint>& read) {
    std::vector<GpxTrack::Point> points;
    for (std::size_t i = 0; i < read.size(); ++i) {
        const GpxTrack::Point& a = read[i == 0 ? 0 : i - 1].point;
        const GpxTrack::Point& b = read[i == 0 ? 1 : i].point;
        const double way = wayBetween(a, b);
        GpxTrack::Point point = read[i].point;
        if (!read[i].hasSpeed) {
            point.speed = way / (b.time - a.time);
        }
        if (!read[i].hasHeading) {  // the noise of a receiver at rest is no course
            point.heading = way > 0.5 ? courseBetween(a, b) : i == 0 ? 0 : points[i - 1].heading;
        }
        points.push_back(point);
    }
    return points;
}

}  // namespace

bool GpxTrack::read(const std::string& text, const std::string& name, GpxTrack& out, std::string& error) {
    pugi::xml_document document;
    const auto parsed = document.load_buffer(text.data(), text.size());
    if (!parsed) {
        error = name + ":" + std::to_string(lineAt(text, parsed.offset)) +
                ": is not XML: " + parsed.description();
        return false;
    }
    std::vector<FilePoint> points;
    double first = 0;
    std::string fault;
    document.find_node([&](const pugi::xml_node& node) {
        if (!isTag(node, "trkpt")) {
            return false;
        }
        FilePoint read;
        std::string reason = readPoint(node, read);
        if (points.empty()) {
            first = read.point.time;
        }
        read.point.time -= first;
        if (reason.empty() && !points.empty() && read.point.time < points.back().point.time) {
            reason = "time goes back";
        }
        if (!reason.empty()) {
            fault = name + ":" + std::to_string(lineAt(text, node.offset_debug())) + ": " + reason;
            return true;
        }
        // Receivers write some points twice.
        if (points.empty() || read.point.time != points.back().point.time) {
            points.push_back(read);
        }
        return false;
    });
    if (!fault.empty()) {
        error = fault;
        return false;
    }
    if (points.size() < 2) {
        error = name + ": a track (trkpt) of at least two points is expected";
        return false;
    }
    out.m_points = derived(points);
    return true;
}

GpxTrack::Point GpxTrack::at(double time) const {
    const auto after = std::upper_bound(m_points.begin(), m_points.end(), time,
                                        [](double t, const Point& point) { return t < point.time; });
    if (after == m_points.begin()) {
        return m_points.front();
    }
    if (after == m_points.end()) {
        Point last = m_points.back();
        last.speed = time > last.time ? 0 : last.speed;  // parked where the track ends
        return last;
    }
    const Point& a = *(after - 1);
    const Point& b = *after;
    const double share = (time - a.time) / (b.time - a.time);
    const auto between = [&](double from, double to) { return from + share * (to - from); };
    double turn = b.heading - a.heading;
    turn = turn > 180 ? turn - 360 : turn < -180 ? turn + 360 : turn;
    double east = b.longitude - a.longitude;
    east = east > 180 ? east - 360 : east < -180 ? east + 360 : east;
    return {time,
            between(a.latitude, b.latitude),
            a.longitude + share * east,
            between(a.altitude, b.altitude),
            between(a.speed, b.speed),
            a.heading + share * turn};
}

}  // namespace vlmVehicle
