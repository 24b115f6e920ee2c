#pragma once
/// Recorded drives: a GPX track for position and speed, CSV files for the fields of any event.
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "qdr/services/described.h"
#include "tools/vehicle/DriveModel.h"

namespace vlmVehicle {

/// A GPX 1.0 or 1.1 track with time stamps. Where a point has no speed or course of its own, both follow
/// from the way between points.
class GpxTrack {
  public:
    struct Point {
        double time;  ///< s since the first point
        double latitude, longitude, altitude;
        double speed;    ///< m/s
        double heading;  ///< deg
    };

    /// False with a reason that names file and line.
    static bool readFile(const std::string& path, GpxTrack& out, std::string& error);
    static bool read(const std::string& text, const std::string& name, GpxTrack& out, std::string& error);

    const std::vector<Point>& points() const { return m_points; }
    double duration() const { return m_points.empty() ? 0 : m_points.back().time; }
    /// Between the points; the last one after the end.
    Point at(double time) const;

  private:
    std::vector<Point> m_points;
};

/// Samples of one event: a column "time" in seconds, or "timestamp" in milliseconds, and one column per
/// field. An empty cell is a field that the sample leaves out. Rows of one time make one notification.
class CsvRecording {
  public:
    struct Notification {
        double time;  ///< s since the first row
        std::vector<qdr::services::FieldValues> samples;
    };

    /// False with a reason that names file, line and column.
    static bool readFile(const std::string& path, const qdr::services::DescribedEvent& event,
                         CsvRecording& out, std::string& error);
    static bool read(const std::string& text, const std::string& name,
                     const qdr::services::DescribedEvent& event, CsvRecording& out, std::string& error);

    const std::vector<Notification>& notifications() const { return m_notifications; }

  private:
    std::vector<Notification> m_notifications;
};

/// A cell as a value of the field: a number, true or false, an enumerator's name, or a text. False with a
/// reason when it is none that the field can hold.
bool parseField(const std::string& text, const qdr::services::FieldInfo& field,
                qdr::services::FieldValue& out, std::string& error);

}  // namespace vlmVehicle
