#include "output.h"

#include <cmath>
#include <vector>

namespace hxcli {

SolveSummary summaryFromRecord(const QPRecord& r, int32_t returnCode) {
  SolveSummary s;
  s.returnCode = returnCode;
  s.objective = r.objValue;
  s.iterations = r.iterations;
  s.primalInfeas = r.primalInfeas;
  s.dualInfeas = r.dualInfeas;
  s.boundInfeas = r.boundInfeas;
  s.dualityGap = r.dualityGap;
  s.complementarity = r.complementarity;
  s.solverTime = r.solverTime;
  return s;
}

const char* statusName(int32_t rc) {
  switch (rc) {
    case 0: return "optimal";
    case 9: return "acceptable";
    case 2: return "primal infeasible";
    case 3: return "dual infeasible";
    case 23: return "primal and dual infeasible";
    case 5: return "iteration limit";
    case 10: return "time limit";
    case 99: return "interrupted";
    case 8: return "failure";
    case 1: return "out of memory";
    default: return "unknown";
  }
}

bool hasPoint(int32_t rc) { return rc == 0 || rc == 9 || rc == 5 || rc == 10; }

void printProblem(FILE* out, const MpsProblem& p, const QPModel& m, const std::string& file) {
  std::fprintf(out, "Problem      %s (%s, %s read in %s form)\n",
               p.name.empty() ? "(no name)" : p.name.c_str(), file.c_str(),
               p.isQP() ? "QPS" : "MPS", p.fixedForm ? "fixed" : "free");
  std::fprintf(out, "Size         %d rows, %d columns, %d nonzeros", m.record.numRow,
               m.record.numCol, m.record.numCoef);
  if (p.isQP())
    std::fprintf(out, "; Q: %d diagonal and %d off-diagonal entries", p.numQuadDiag(),
                 p.numQuadCoef());
  std::fprintf(out, "\n");
  if (!m.freeRows.empty())
    std::fprintf(out, "             %zu free rows left out of the solve\n", m.freeRows.size());
  if (p.objSense < 0) std::fprintf(out, "Sense        maximise\n");
}

void printSummary(FILE* out, const SolveSummary& s) {
  std::fprintf(out, "\nStatus       %s (return code %d)\n", statusName(s.returnCode), s.returnCode);
  if (!s.entry.empty()) std::fprintf(out, "Entry        %s\n", s.entry.c_str());
  if (hasPoint(s.returnCode))
    std::fprintf(out, "Objective    %.10e\n", s.objective);
  else
    std::fprintf(out, "Objective    none: the solve gave no point\n");
  std::fprintf(out, "Iterations   %d\n", s.iterations);
  std::fprintf(out, "Infeasible   primal %.2e, dual %.2e, bound %.2e\n", s.primalInfeas,
               s.dualInfeas, s.boundInfeas);
  std::fprintf(out, "Gap          duality gap %.2e, complementarity %.2e\n", s.dualityGap,
               s.complementarity);
  if (s.crossover) {
    const FennickStats& c = s.crossoverStats;
    std::fprintf(out, "Crossover    %d push and %d simplex iterations, %.3f s\n", c.pushIterations,
                 c.simplexIterations, c.seconds);
    if (s.hasBasis())
      std::fprintf(out, "Basis        %d basic, %d at lower, %d at upper, %d free, %d fixed\n",
                   c.numBasic, c.numAtLower, c.numAtUpper, c.numFreeZero, c.numFixed);
    else
      std::fprintf(out, "Basis        none: the crossover did not finish\n");
  }
  std::fprintf(out, "Time         read %.3f s, solver %.3f s, solve %.3f s, total %.3f s\n",
               s.readTime, s.solverTime, s.solveTime, s.totalTime);
  const ClaimCheck& check = s.claim;
  if (check.checked)
    std::fprintf(out, "Check        %s: primal %.1e, dual %.1e, gap %.1e (recomputed from the file)\n",
                 check.verified ? "verified" : ("NOT VERIFIED, " + check.failure).c_str(),
                 check.primalResidual, check.dualResidual, check.relativeGap);
}

const char* basisName(uint8_t status) {
  switch (status) {
    case BASIS_BASIC: return "BS";
    case BASIS_AT_LOWER: return "LB";
    case BASIS_AT_UPPER: return "UB";
    case BASIS_FREE_ZERO: return "FR";
    case BASIS_FIXED: return "FX";
    default: return "--";
  }
}

namespace {

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += (char)c;
        }
    }
  }
  return out + "\"";
}

// JSON has no infinity and no NaN.
std::string jsonNumber(double v, const char* format = "%.17g") {
  if (!std::isfinite(v)) return "null";
  char buf[40];
  std::snprintf(buf, sizeof buf, format, v);
  return buf;
}

}  // namespace

bool writeJson(FILE* out, const MpsProblem& p, const SolveSummary& s) {
  std::fprintf(out, "{\n");
  std::fprintf(out, "  \"problem\": %s,\n", jsonString(p.name).c_str());
  std::fprintf(out, "  \"file\": %s,\n", jsonString(s.file).c_str());
  if (!s.entry.empty()) std::fprintf(out, "  \"entry\": %s,\n", jsonString(s.entry).c_str());
  std::fprintf(out, "  \"status\": %s,\n", jsonString(statusName(s.returnCode)).c_str());
  std::fprintf(out, "  \"returnCode\": %d,\n", s.returnCode);
  std::fprintf(out, "  \"objective\": %s,\n",
               hasPoint(s.returnCode) ? jsonNumber(s.objective).c_str() : "null");
  std::fprintf(out, "  \"iterations\": %d,\n", s.iterations);
  std::fprintf(out, "  \"primalInfeas\": %s,\n", jsonNumber(s.primalInfeas).c_str());
  std::fprintf(out, "  \"dualInfeas\": %s,\n", jsonNumber(s.dualInfeas).c_str());
  std::fprintf(out, "  \"boundInfeas\": %s,\n", jsonNumber(s.boundInfeas).c_str());
  std::fprintf(out, "  \"dualityGap\": %s,\n", jsonNumber(s.dualityGap).c_str());
  std::fprintf(out, "  \"complementarity\": %s,\n", jsonNumber(s.complementarity).c_str());
  if (s.crossover) {
    const FennickStats& c = s.crossoverStats;
    std::fprintf(out,
                 "  \"crossover\": {\"pushIterations\": %d, \"simplexIterations\": %d, "
                 "\"time\": %s, \"basis\": ",
                 c.pushIterations, c.simplexIterations, jsonNumber(c.seconds, "%.6f").c_str());
    if (s.hasBasis())
      std::fprintf(out,
                   "{\"basic\": %d, \"atLower\": %d, \"atUpper\": %d, \"free\": %d, "
                   "\"fixed\": %d}},\n",
                   c.numBasic, c.numAtLower, c.numAtUpper, c.numFreeZero, c.numFixed);
    else
      std::fprintf(out, "null},\n");
  }
  const ClaimCheck& check = s.claim;
  if (check.checked)
    std::fprintf(out,
                 "  \"check\": {\"verified\": %s, \"primalResidual\": %s, \"dualResidual\": %s, "
                 "\"relativeGap\": %s, \"failure\": %s},\n",
                 check.verified ? "true" : "false", jsonNumber(check.primalResidual).c_str(),
                 jsonNumber(check.dualResidual).c_str(), jsonNumber(check.relativeGap).c_str(),
                 check.failure.empty() ? "null" : jsonString(check.failure).c_str());
  else
    std::fprintf(out, "  \"check\": null,\n");
  // The history by column, one array per column of the iteration log.
  struct Column {
    const char* name;
    double IterationRow::*field;
  };
  static const Column columns[] = {{"complementarity", &IterationRow::complementarity},
                                   {"dualityGap", &IterationRow::dualityGap},
                                   {"primalInfeas", &IterationRow::primalInfeas},
                                   {"boundInfeas", &IterationRow::boundInfeas},
                                   {"dualInfeas", &IterationRow::dualInfeas}};
  std::fprintf(out, "  \"history\": {\"iteration\": [");
  for (size_t k = 0; k < s.history.size(); ++k)
    std::fprintf(out, "%s%d", k ? ", " : "", s.history[k].iteration);
  std::fprintf(out, "]");
  for (const Column& c : columns) {
    std::fprintf(out, ",\n    \"%s\": [", c.name);
    for (size_t k = 0; k < s.history.size(); ++k)
      std::fprintf(out, "%s%s", k ? ", " : "", jsonNumber(s.history[k].*c.field, "%.6e").c_str());
    std::fprintf(out, "]");
  }
  std::fprintf(out, "},\n");
  std::fprintf(out, "  \"times\": {\"read\": %s, \"solver\": %s, \"solve\": %s, \"total\": %s}\n",
               jsonNumber(s.readTime, "%.6f").c_str(), jsonNumber(s.solverTime, "%.6f").c_str(),
               jsonNumber(s.solveTime, "%.6f").c_str(), jsonNumber(s.totalTime, "%.6f").c_str());
  std::fprintf(out, "}\n");
  return std::fflush(out) == 0 && !std::ferror(out);
}

bool writeSolution(FILE* out, const MpsProblem& p, const QPModel& m, const SolveSummary& s) {
  const QPRecord& r = m.record;
  std::fprintf(out, "NAME %s\n", p.name.c_str());
  std::fprintf(out, "STATUS %s\n", statusName(s.returnCode));
  if (hasPoint(s.returnCode))
    std::fprintf(out, "OBJECTIVE %.15g\n", s.objective);
  else
    std::fprintf(out, "OBJECTIVE none\n");

  // With a basis, every column and row line ends in its basis status.
  const int32_t numRecordCol = r.numCol;
  std::fprintf(out, "COLUMNS %d\n", p.numCol());
  for (int32_t j = 0; j < p.numCol(); ++j) {
    std::fprintf(out, "%s %.15g", p.colNames[j].c_str(), r.solPrimal[j]);
    if (s.hasBasis()) std::fprintf(out, " %s", basisName(s.basis[j]));
    std::fprintf(out, "\n");
  }

  // Free rows were not in the solve: their activity comes from the point,
  // and they have no dual.
  std::vector<int32_t> place(p.numRow(), -1);
  for (size_t k = 0; k < m.recordRow.size(); ++k) place[m.recordRow[k]] = (int32_t)k;
  std::vector<double> freeActivity(p.numRow(), 0.0);
  if (!m.freeRows.empty()) {
    for (int32_t j = 0; j < p.numCol(); ++j)
      for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; ++k)
        if (place[p.rowIndex[k]] < 0) freeActivity[p.rowIndex[k]] += p.value[k] * r.solPrimal[j];
  }
  std::fprintf(out, "ROWS %d\n", p.numRow());
  for (int32_t i = 0; i < p.numRow(); ++i) {
    int32_t k = place[i];
    double activity = k >= 0 ? r.rowActivity[k] : freeActivity[i];
    double dual = k >= 0 ? r.solDual[k] : 0.0;
    std::fprintf(out, "%s %.15g %.15g", p.rowNames[i].c_str(), activity, dual);
    // A free row left out of the solve is basic in any basis.
    if (s.hasBasis())
      std::fprintf(out, " %s", basisName(k >= 0 ? s.basis[numRecordCol + k] : BASIS_BASIC));
    std::fprintf(out, "\n");
  }
  std::fprintf(out, "END\n");
  return std::fflush(out) == 0 && !std::ferror(out);
}

}  // namespace hxcli

namespace hxcli {

// Basic columns pair with nonbasic rows, as many of one as of the other; a
// pair says at which end the row's activity sits.  Columns at lower and free
// columns at zero are what a reader assumes of a column not named.
bool writeBasis(FILE* out, const MpsProblem& p, const QPModel& m, const SolveSummary& s) {
  const int32_t numCol = m.record.numCol;
  std::vector<int32_t> basicCols, nonbasicRows;
  for (int32_t j = 0; j < p.numCol(); ++j)
    if (s.basis[j] == BASIS_BASIC) basicCols.push_back(j);
  for (size_t k = 0; k < m.recordRow.size(); ++k)
    if (s.basis[numCol + k] != BASIS_BASIC) nonbasicRows.push_back((int32_t)k);
  if (basicCols.size() != nonbasicRows.size()) return false;
  std::fprintf(out, "NAME          %s\n", p.name.c_str());
  for (size_t t = 0; t < basicCols.size(); ++t) {
    const int32_t k = nonbasicRows[t];
    std::fprintf(out, " %s %-8s  %s\n", s.basis[numCol + k] == BASIS_AT_UPPER ? "XU" : "XL",
                 p.colNames[basicCols[t]].c_str(), p.rowNames[m.recordRow[k]].c_str());
  }
  for (int32_t j = 0; j < p.numCol(); ++j)
    if (s.basis[j] == BASIS_AT_UPPER) std::fprintf(out, " UL %s\n", p.colNames[j].c_str());
  std::fprintf(out, "ENDATA\n");
  return std::fflush(out) == 0 && !std::ferror(out);
}

}  // namespace hxcli
