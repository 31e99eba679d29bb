// halvex._halvex: the extension behind the Python package.  It reads files
// with the command's reader and solves with the command's driver, on one
// host and one loaded module per process, so that threads share them.
#include <dlfcn.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/host.h"
#include "mps.h"
#include "options.h"
#include "output.h"
#include "solve.h"

namespace py = pybind11;

namespace {

using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;
using Ints = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;

// One solve's way back to Python: its log call-back and the first Python
// error that stopped it (a raising call-back, or Ctrl-C).
struct SolveContext {
  py::object log;
  bool stop = false;
  std::unique_ptr<py::error_already_set> error;
};

// Log lines arrive on the thread that solves; lines of the factorisation's
// own threads have no solve to go to and are dropped.
thread_local SolveContext* tlsContext = nullptr;

void keepError(SolveContext* c) {
  if (!c->error) c->error.reset(new py::error_already_set());
  else PyErr_Clear();
  c->stop = true;
}

void sink(int kind, const std::string& line) {
  SolveContext* c = tlsContext;
  if (!c || c->stop) return;
  py::gil_scoped_acquire gil;
  try {
    c->log(kind, line);
  } catch (py::error_already_set& e) {
    e.restore();
    keepError(c);
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "the log call-back failed");
    keepError(c);
  }
}

// The solver asks between iterations; the GIL is taken only for as long as
// Python needs to run its signal handlers.
int32_t checkBreak(void* data) {
  SolveContext* c = static_cast<SolveContext*>(data);
  if (c->stop) return 1;
  py::gil_scoped_acquire gil;
  if (PyErr_CheckSignals() != 0) keepError(c);
  return c->stop ? 1 : 0;
}

struct Engine {
  hxhost::Host host;
  hxhost::HalvexEntries entries;
  std::unique_ptr<hxhost::HalvexModule> module;
  std::string library;
};

std::mutex gEngineMu;
Engine* gEngine = nullptr;  // lives as long as the process: threads may still solve at exit

std::string packageDir() {
  Dl_info info;
  if (!dladdr(reinterpret_cast<void*>(&packageDir), &info) || !info.dli_fname) return "";
  std::string self = info.dli_fname;
  size_t slash = self.rfind('/');
  return slash == std::string::npos ? "." : self.substr(0, slash);
}

// The library asked for, else HALVEX_LIBRARY, else the one installed with
// the package, else the one this build made.
std::string libraryPath(const std::string& given) {
  if (!given.empty()) return given;
  if (const char* env = std::getenv("HALVEX_LIBRARY"))
    if (*env) return env;
  std::string installed = packageDir() + "/" + HALVEX_LIBRARY_FROM_PACKAGE + "/libhalvex.so";
  char resolved[PATH_MAX];
  if (realpath(installed.c_str(), resolved)) return resolved;
  return HALVEX_LIBRARY_PATH;
}

Engine* engine(const std::string& given) {
  std::lock_guard<std::mutex> g(gEngineMu);
  const std::string path = libraryPath(given);
  if (gEngine) {
    if (!given.empty() && path != gEngine->library)
      throw py::value_error("library: the module is already loaded from " + gEngine->library);
    return gEngine;
  }
  std::unique_ptr<Engine> e(new Engine);
  std::string reason;
  if (!hxhost::openHalvexLibrary(path.c_str(), &e->entries, &reason))
    throw std::runtime_error(reason);
  e->library = path;
  e->host.setSink(sink);
  e->module.reset(new hxhost::HalvexModule(e->host, e->entries));
  if (!e->module->ok()) throw std::runtime_error("the module could not be started from " + path);
  gEngine = e.release();
  return gEngine;
}

template <typename T>
py::array_t<T> toArray(const T* data, size_t n) {
  py::array_t<T> out(n);
  if (n) std::copy(data, data + n, out.mutable_data());
  return out;
}

template <typename T>
std::vector<T> toVector(const py::handle& h, const char* name) {
  py::array_t<T, py::array::c_style | py::array::forcecast> a =
      py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(h);
  if (!a || a.ndim() != 1) throw py::value_error(std::string(name) + " must be a vector");
  return std::vector<T>(a.data(), a.data() + a.size());
}

py::dict problemToDict(const hxcli::MpsProblem& p) {
  py::dict d;
  d["name"] = p.name;
  d["obj_name"] = p.objName;
  d["sense"] = p.objSense;
  d["obj_constant"] = p.objConstant;
  d["row_names"] = p.rowNames;
  d["col_names"] = p.colNames;
  d["row_sense"] = std::string(p.rowSense.begin(), p.rowSense.end());
  d["row_lower"] = toArray(p.rowLower.data(), p.rowLower.size());
  d["row_upper"] = toArray(p.rowUpper.data(), p.rowUpper.size());
  d["c"] = toArray(p.obj.data(), p.obj.size());
  d["lb"] = toArray(p.colLower.data(), p.colLower.size());
  d["ub"] = toArray(p.colUpper.data(), p.colUpper.size());
  d["is_integer"] = toArray(p.isInteger.data(), p.isInteger.size());
  d["a_colptr"] = toArray(p.colBegin.data(), p.colBegin.size());
  d["a_rowind"] = toArray(p.rowIndex.data(), p.rowIndex.size());
  d["a_values"] = toArray(p.value.data(), p.value.size());
  d["q_diag"] = toArray(p.quadDiag.data(), p.quadDiag.size());
  d["q_colptr"] = toArray(p.quadColBegin.data(), p.quadColBegin.size());
  d["q_rowind"] = toArray(p.quadRowIndex.data(), p.quadRowIndex.size());
  d["q_values"] = toArray(p.quadValue.data(), p.quadValue.size());
  d["warnings"] = p.warnings;
  d["fixed_form"] = p.fixedForm;
  return d;
}

// A column-wise matrix with rows in [lo, hi) of each column ascending (for
// Q: strictly below the column).
void checkColumns(const char* name, const std::vector<int32_t>& begin,
                  const std::vector<int32_t>& index, size_t values, int32_t numCol,
                  int32_t numRow, bool strictlyLower) {
  const std::string n = name;
  if (begin.size() != (size_t)numCol + 1 || begin[0] != 0 || (size_t)begin.back() != index.size() ||
      index.size() != values)
    throw py::value_error(n + ": column starts do not fit the entries");
  for (int32_t j = 0; j < numCol; ++j) {
    if (begin[j] > begin[j + 1]) throw py::value_error(n + ": column starts go backwards");
    for (int32_t k = begin[j]; k < begin[j + 1]; ++k) {
      const int32_t i = index[k];
      if (i < (strictlyLower ? j + 1 : 0) || i >= numRow || (k > begin[j] && index[k - 1] >= i))
        throw py::value_error(n + ": row index out of range or out of order in column " +
                              std::to_string(j));
    }
  }
}

hxcli::MpsProblem dictToProblem(const py::dict& d) {
  hxcli::MpsProblem p;
  p.name = d["name"].cast<std::string>();
  p.objName = "OBJ";
  p.objSense = d["sense"].cast<int>() < 0 ? -1 : 1;
  p.objConstant = d["obj_constant"].cast<double>();
  p.obj = toVector<double>(d["c"], "c");
  p.colLower = toVector<double>(d["lb"], "lb");
  p.colUpper = toVector<double>(d["ub"], "ub");
  p.rowLower = toVector<double>(d["row_lower"], "row_lower");
  p.rowUpper = toVector<double>(d["row_upper"], "row_upper");
  p.colBegin = toVector<int32_t>(d["a_colptr"], "A");
  p.rowIndex = toVector<int32_t>(d["a_rowind"], "A");
  p.value = toVector<double>(d["a_values"], "A");
  p.quadDiag = toVector<double>(d["q_diag"], "P");
  p.quadColBegin = toVector<int32_t>(d["q_colptr"], "P");
  p.quadRowIndex = toVector<int32_t>(d["q_rowind"], "P");
  p.quadValue = toVector<double>(d["q_values"], "P");
  p.colNames = d["col_names"].cast<std::vector<std::string>>();
  p.rowNames = d["row_names"].cast<std::vector<std::string>>();
  const int32_t n = (int32_t)p.obj.size(), m = (int32_t)p.rowLower.size();
  if (p.colLower.size() != (size_t)n || p.colUpper.size() != (size_t)n ||
      p.quadDiag.size() != (size_t)n || p.colNames.size() != (size_t)n)
    throw py::value_error("lb, ub, P and the column names need one entry per column");
  if (p.rowUpper.size() != (size_t)m || p.rowNames.size() != (size_t)m)
    throw py::value_error("the row bounds and names need one entry per row");
  checkColumns("A", p.colBegin, p.rowIndex, p.value.size(), n, m, false);
  checkColumns("P", p.quadColBegin, p.quadRowIndex, p.quadValue.size(), n, n, true);
  p.isInteger.assign(n, 0);
  p.hasRange.assign(m, 0);
  p.rowSense.assign(m, 'E');
  for (int32_t i = 0; i < m; ++i) {
    const bool lo = p.rowLower[i] > -hxcli::kInfinity, up = p.rowUpper[i] < hxcli::kInfinity;
    p.rowSense[i] = lo && up ? (p.rowLower[i] == p.rowUpper[i] ? 'E' : 'G') : lo ? 'G' : up ? 'L' : 'N';
    p.hasRange[i] = lo && up && p.rowLower[i] != p.rowUpper[i];
  }
  return p;
}

py::object basisNames(const std::vector<uint8_t>& status) {
  py::list out;
  for (uint8_t s : status) out.append(hxcli::basisName(s));
  return std::move(out);
}

py::dict resultToDict(const hxcli::MpsProblem& p, const hxcli::SolveJob& job) {
  const hxcli::SolveSummary& s = job.summary;
  const QPRecord& r = job.model().record;
  const bool point = hxcli::hasPoint(s.returnCode);
  py::dict d;
  d["status"] = hxcli::statusName(s.returnCode);
  d["return_code"] = s.returnCode;
  d["entry"] = s.entry;
  d["objective"] = point ? py::object(py::float_(s.objective)) : py::none();
  d["x"] = toArray(r.solPrimal, (size_t)p.numCol());
  std::vector<double> y = hxcli::rowDuals(p, job), activity = hxcli::rowActivities(p, job);
  d["y"] = toArray(y.data(), y.size());
  d["row_activity"] = toArray(activity.data(), activity.size());
  d["iterations"] = s.iterations;
  py::dict times;
  times["read"] = s.readTime;
  times["solver"] = s.solverTime;
  times["solve"] = s.solveTime;
  d["times"] = times;
  py::dict info;
  info["primal_infeas"] = s.primalInfeas;
  info["dual_infeas"] = s.dualInfeas;
  info["bound_infeas"] = s.boundInfeas;
  info["duality_gap"] = s.dualityGap;
  info["complementarity"] = s.complementarity;
  info["entry"] = s.entry;
  if (s.claim.checked) {
    py::dict check;
    check["verified"] = s.claim.verified;
    check["primal_residual"] = s.claim.primalResidual;
    check["dual_residual"] = s.claim.dualResidual;
    check["relative_gap"] = s.claim.relativeGap;
    check["failure"] = s.claim.failure;
    info["check"] = check;
  } else {
    info["check"] = py::none();
  }
  if (s.crossover) {
    py::dict c;
    c["push_iterations"] = s.crossoverStats.pushIterations;
    c["simplex_iterations"] = s.crossoverStats.simplexIterations;
    c["time"] = s.crossoverStats.seconds;
    info["crossover"] = c;
  }
  d["info"] = info;
  py::dict history;
  std::vector<int32_t> iteration;
  std::vector<double> cols[5];
  for (const hxcli::IterationRow& h : s.history) {
    iteration.push_back(h.iteration);
    cols[0].push_back(h.complementarity);
    cols[1].push_back(h.dualityGap);
    cols[2].push_back(h.primalInfeas);
    cols[3].push_back(h.boundInfeas);
    cols[4].push_back(h.dualInfeas);
  }
  history["iteration"] = toArray(iteration.data(), iteration.size());
  const char* names[5] = {"complementarity", "dualityGap", "primalInfeas", "boundInfeas",
                          "dualInfeas"};
  for (int k = 0; k < 5; ++k) history[names[k]] = toArray(cols[k].data(), cols[k].size());
  d["history"] = history;
  if (s.hasBasis()) {
    // Record columns first, then record rows; a free row left out of the
    // solve is basic in any basis.
    const hxcli::QPModel& m = job.model();
    std::vector<uint8_t> col(s.basis.begin(), s.basis.begin() + p.numCol());
    std::vector<uint8_t> row(p.numRow(), BASIS_BASIC);
    for (size_t k = 0; k < m.recordRow.size(); ++k) row[m.recordRow[k]] = s.basis[r.numCol + k];
    d["basis"] = py::make_tuple(basisNames(col), basisNames(row));
  } else {
    d["basis"] = py::none();
  }
  return d;
}

hxcli::SolveOptions parseOptions(const std::vector<std::string>& args) {
  std::vector<const char*> argv{"solve", "<problem>"};
  for (const std::string& a : args) argv.push_back(a.c_str());
  hxcli::SolveOptions o;
  std::string error;
  if (!hxcli::parseSolveArgs((int)argv.size(), argv.data(), 1, &o, &error))
    throw py::value_error(error);
  return o;
}

py::dict solveProblem(const hxcli::MpsProblem& p, const hxcli::SolveOptions& o, py::object log,
                      double readTime) {
  hxcli::SolveJob job;
  std::string reason;
  if (!hxcli::prepareJob(p, o, &job, &reason)) throw py::value_error(reason);
  Engine* e = engine(o.library);
  SolveContext context;
  context.log = log;
  bool ran;
  {
    py::gil_scoped_release nogil;
    tlsContext = &context;
    ran = hxcli::runJob(e->host, *e->module, e->entries, p, o, checkBreak, &context, &job, &reason);
    tlsContext = nullptr;
  }
  if (context.error) {
    context.error->restore();
    context.error.reset();
    throw py::error_already_set();
  }
  if (!ran) throw std::runtime_error(reason);
  job.summary.readTime = readTime;
  py::dict d = resultToDict(p, job);
  d["times"]["total"] = readTime + job.summary.solveTime;
  return d;
}

hxcli::MpsFormat formatFrom(const std::string& format) {
  if (format == "auto") return hxcli::MpsFormat::Auto;
  if (format == "fixed") return hxcli::MpsFormat::Fixed;
  if (format == "free") return hxcli::MpsFormat::Free;
  throw py::value_error("format is auto, fixed or free, not '" + format + "'");
}

hxcli::MpsProblem readFile(const std::string& path, hxcli::MpsFormat format) {
  hxcli::MpsProblem p;
  hxcli::MpsError error;
  bool ok;
  {
    py::gil_scoped_release nogil;
    ok = hxcli::readMpsFile(path, format, &p, &error);
  }
  if (!ok) throw py::value_error(error.message());
  return p;
}

}  // namespace

PYBIND11_MODULE(_halvex, m) {
  m.doc() = "The halvex solver's extension module; use the package halvex.";
  m.def("read", [](const std::string& path, const std::string& format) {
    return problemToDict(readFile(path, formatFrom(format)));
  });
  m.def("parse_options", [](const std::vector<std::string>& args) {
    parseOptions(args);
  });
  m.def("solve_file", [](const std::string& path, const std::vector<std::string>& args,
                         py::object log) {
    hxcli::SolveOptions o = parseOptions(args);
    const auto t0 = std::chrono::steady_clock::now();
    hxcli::MpsProblem p = readFile(path, o.format);
    const double readTime =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    py::dict d = solveProblem(p, o, log, readTime);
    d["problem"] = p.name;
    d["problem_data"] = problemToDict(p);
    return d;
  });
  m.def("solve_dict", [](const py::dict& problem, const std::vector<std::string>& args,
                         py::object log) {
    hxcli::SolveOptions o = parseOptions(args);
    hxcli::MpsProblem p = dictToProblem(problem);
    py::dict d = solveProblem(p, o, log, 0.0);
    d["problem"] = p.name;
    return d;
  });
  m.def("library", []() -> py::object {
    std::lock_guard<std::mutex> g(gEngineMu);
    return gEngine ? py::object(py::str(gEngine->library)) : py::none();
  });
}
