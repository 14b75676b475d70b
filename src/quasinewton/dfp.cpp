// Davidon-Fletcher-Powell: the variable-metric iteration of
// quasi_newton_loop.cpp with dense_directions.cpp's two-term update and no
// kept matrix.
#include <cstdlib>

#include "framework/run_record.h"
#include "lxopt/quasinewton.h"
#include "quasinewton/dense_directions.h"
#include "quasinewton/dfp_request.h"
#include "quasinewton/inverse_hessian.h"

namespace LxOpt {
namespace {

// The matrix comes from malloc and always starts (and restarts) as the
// identity. The NoOpt report passes a null gradient.
class DFPMatrix : public detail::QuasiNewtonMatrix {
 public:
  DFPMatrix() : QuasiNewtonMatrix(detail::QuasiNewtonUpdate::kDFP, true) {}
  ~DFPMatrix() override { std::free(h_); }
  DFPMatrix(const DFPMatrix&) = delete;
  DFPMatrix& operator=(const DFPMatrix&) = delete;

  double* Acquire(unsigned int n) override {
    // The request is made as computed (its element count wraps from
    // n = 65536 on); a block that cannot hold the n x n matrix counts as a
    // failed allocation.
    const std::size_t bytes = detail::DFPMatrixBytes(n);
    h_ = static_cast<double*>(std::malloc(bytes));
    if (h_ == nullptr) return nullptr;
    if (bytes < sizeof(double) * n * static_cast<std::size_t>(n)) {
      std::free(h_);
      h_ = nullptr;
      return nullptr;
    }
    detail::SetIdentityPacked(h_, n);
    return h_;
  }

 private:
  double* h_ = nullptr;
};

}  // namespace

double LxDFPOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                            double* out) {
  DFPMatrix matrix;
  return detail::RecordRun(
      lastRun_, func, checkpoint, true, [&](LxFunc1& counted, LxCheckpoint1* recorder) {
        return detail::RunQuasiNewton({GetIterLimit(), GetTolerance(), LineMinimizer()}, matrix,
                                      counted, recorder, in, out);
      });
}

}  // namespace LxOpt
