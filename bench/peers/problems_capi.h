// C interface to the benchmark problem set (liblxbench_problems), for the
// scipy script. Problems are addressed by index, 0 <= i < lxb_count().
#ifndef LXBENCH_PROBLEMS_CAPI_H
#define LXBENCH_PROBLEMS_CAPI_H

extern "C" {
int lxb_count();
// The problem's name; valid until the next call.
const char* lxb_name(int i);
int lxb_n(int i);
double lxb_fstar(int i);
// Writes the standard start point (n doubles).
void lxb_start(int i, double* x);
double lxb_value(int i, const double* x);
// Writes the gradient into g and returns the value.
double lxb_gradient(int i, const double* x, double* g);
// Writes the gradient into g and the full n x n Hessian (row-major) into h;
// 0 when the Hessian cannot be formed.
int lxb_hessian(int i, const double* x, double* h, double* g);
}

#endif  // LXBENCH_PROBLEMS_CAPI_H
