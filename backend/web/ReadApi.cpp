#include "backend/web/ReadApi.h"

#include <algorithm>
#include <memory>
#include <ostream>
#include <semaphore>
#include <streambuf>
#include <string>
#include <utility>

#include "backend/store/Events.h"
#include "backend/store/Export.h"
#include "backend/web/Queries.h"

namespace vlmBackend::web {

namespace {

using kyo::Json::Value;

/// Each has a connection of the server for as long as its client takes.
constexpr std::ptrdiff_t kMostExports = 16;
constexpr std::size_t kMostColumns = 64;
constexpr std::int64_t kMostVehicles = 1000;

Range rangeOf(const Request& request) {
    return {request.number("from"), request.number("to"), request.number("instance")};
}

std::string optional(const Request& request, const char* name, const char* otherwise = "") {
    const auto found = request.query.find(name);
    return found == request.query.end() ? otherwise : found->second;
}

const Event& viewOf(const std::string& name) {
    const Event* const event = findView(name);
    if (event == nullptr) {
        throw Problem(400, "\"" + name + "\" is no view: /api/catalog lists them");
    }
    return *event;
}

std::pair<const Event*, const EventField*> columnOf(const std::string& name) {
    const auto dot = std::min(name.find('.'), name.size());
    const Event& event = viewOf(name.substr(0, dot));
    for (const EventField& field : event.fields) {
        if (dot < name.size() && field.column == name.substr(dot + 1)) {
            return {&event, &field};
        }
    }
    throw Problem(400, "column: \"" + name + "\": the view has no such column");
}

/// A stream into a response, in large parts.
class Parts : public std::streambuf {
  public:
    explicit Parts(const Put& put) : m_put(put) { setp(m_buffer, m_buffer + sizeof m_buffer); }

  protected:
    int_type overflow(int_type c) override {
        if (sync() != 0) {
            return traits_type::eof();
        }
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(c);
            pbump(1);
        }
        return traits_type::not_eof(c);
    }
    int sync() override {
        const auto size = static_cast<std::size_t>(pptr() - pbase());
        setp(m_buffer, m_buffer + sizeof m_buffer);
        return size == 0 || m_put({m_buffer, size}) ? 0 : -1;
    }

  private:
    const Put& m_put;
    char m_buffer[65536] = {};
};

/// Of the header that names a file: the vehicle's name without what a shell or a folder could misread.
std::string fileName(std::string name) {
    std::replace_if(
        name.begin(), name.end(),
        [](unsigned char c) { return std::isalnum(c) == 0 && c != '-' && c != '_'; }, '_');
    return name;
}

Response exported(Readers& readers, std::counting_semaphore<>& free, const Request& request) {
    struct Form {
        const char* name;
        const char* type;
        std::size_t (*write)(const store::Lend&, const store::Selection&, std::ostream&);
    };
    constexpr Form forms[] = {{"csv", "text/csv; charset=utf-8", store::exportCsv},
                              {"gpx", "application/gpx+xml", store::exportGpx},
                              {"jsonl", "application/jsonl", store::exportEnvelopes}};
    const std::string& wanted = request.required("form");
    const auto* const form =
        std::find_if(std::begin(forms), std::end(forms), [&](const Form& one) { return wanted == one.name; });
    if (form == std::end(forms)) {
        throw Problem(400, "form: csv, gpx or jsonl is expected");
    }
    store::Selection selection;
    selection.vehicle = request.parameter("vehicle");
    selection.fromMs = request.number("from").value_or(selection.fromMs);
    selection.toMs = request.number("to").value_or(selection.toMs);
    selection.instance = request.number("instance");
    if (wanted == "csv") {
        const std::string& columns = request.required("columns");
        for (std::size_t at = 0; at <= columns.size();) {
            const auto end = std::min(columns.find(',', at), columns.size());
            selection.columns.push_back(columns.substr(at, end - at));
            columnOf(selection.columns.back());
            at = end + 1;
        }
        if (selection.columns.size() > kMostColumns) {
            throw Problem(400, "columns: at most " + std::to_string(kMostColumns));
        }
    }
    // An error of the request must come before the first byte of the answer.
    readers.use([&](store::Sql& sql) { vehicleId(sql, selection.vehicle); });
    Response out;
    out.type = form->type;
    out.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + fileName(selection.vehicle) +
                                                        "." + form->name + "\"");
    if (!free.try_acquire()) {
        throw Problem(503, "too many exports: at most " + std::to_string(kMostExports) + " at once");
    }
    // Counted until the answer is destroyed, whether its stream was asked for or not.
    const std::shared_ptr<void> counted(&free, [&free](void*) { free.release(); });
    out.stream = [&readers, counted, selection, write = form->write](const Put& put) {
        Parts parts(put);
        std::ostream stream(&parts);
        write([&readers](const auto& work) { readers.use(work); }, selection, stream);
        stream.flush();
    };
    return out;
}

}  // namespace

void addReadRoutes(Router& router, Readers& readers, Readers& exportReaders) {
    // Adds a route whose answer is one value from the database.
    const auto add = [&router, &readers](const std::string& pattern, auto query) {
        router.add("GET", pattern, Role::View, [&readers, query](const Request& request) {
            Value content;
            readers.use([&](store::Sql& sql) { content = query(sql, request); });
            return Response::of(content);
        });
    };
    router.add("GET", "/api/catalog", Role::View, [](const Request&) { return Response::of(catalog()); });
    add("/api/vehicles", [](store::Sql& sql, const Request& request) {
        return vehicles(
            sql, {optional(request, "search"), optional(request, "show", "all"), optional(request, "after"),
                  request.number("limit", 1, kMostVehicles).value_or(kMostVehicles)});
    });
    add("/api/fleet", [](store::Sql& sql, const Request&) { return fleet(sql); });
    add("/api/vehicles/{vehicle}",
        [](store::Sql& sql, const Request& request) { return vehicle(sql, request.parameter("vehicle")); });
    add("/api/vehicles/{vehicle}/latest",
        [](store::Sql& sql, const Request& request) { return latest(sql, request.parameter("vehicle")); });
    add("/api/vehicles/{vehicle}/samples", [](store::Sql& sql, const Request& request) {
        const Event& event = viewOf(request.required("view"));
        return samples(sql, request.parameter("vehicle"), event, rangeOf(request), optional(request, "after"),
                       request.number("limit", 1, 1000).value_or(100));
    });
    add("/api/vehicles/{vehicle}/track", [](store::Sql& sql, const Request& request) {
        return track(sql, request.parameter("vehicle"), rangeOf(request),
                     request.number("points", 2, 10'000).value_or(2000));
    });
    add("/api/vehicles/{vehicle}/series", [](store::Sql& sql, const Request& request) {
        const auto [event, field] = columnOf(request.required("column"));
        return series(sql, request.parameter("vehicle"), *event, *field, rangeOf(request),
                      request.number("width", 1, 10'000).value_or(1000));
    });
    router.add("GET", "/api/vehicles/{vehicle}/export", Role::View,
               [&exportReaders, free = std::make_shared<std::counting_semaphore<>>(kMostExports)](
                   const Request& request) { return exported(exportReaders, *free, request); });
    add("/api/unusable",
        [](store::Sql& sql, const Request& request) { return unusable(sql, optional(request, "vehicle")); });
    router.add("GET", "/api/unusable/{id}", Role::View, [&readers](const Request& request) {
        Request asked = request;
        asked.query["id"] = request.parameter("id");
        Response out;
        readers.use([&](store::Sql& sql) { out.body = unusableBytes(sql, *asked.number("id")); });
        out.type = "application/octet-stream";
        out.headers.emplace_back("Content-Disposition", "attachment; filename=\"unusable.bin\"");
        return out;
    });
}

}  // namespace vlmBackend::web
