// One axis of a Kalman filter whose state is position and its first N-1 time derivatives, driven by
// white noise in the next derivative (spectral density q) and measured in position with variance r.
// The real interval between samples enters both the transition and the process noise, so uneven
// sampling is followed as it comes.
#pragma once

#include <array>
#include <cstddef>

namespace peers {

template <std::size_t N>
class KalmanAxis {
public:
    using Vector = std::array<double, N>;

    // A first measurement: position known to r, derivatives unknown within `spread` (their std devs).
    void start(double z, double r, const Vector& spread) {
        state.fill(0.0);
        state[0] = z;
        for (auto& row : covariance) {
            row.fill(0.0);
        }
        covariance[0][0] = r * r;
        for (std::size_t i = 1; i < N; ++i) {
            covariance[i][i] = spread[i] * spread[i];
        }
    }

    // Moves the state dt ahead (process noise q), then takes the measurement z (std dev r).
    void step(double dt, double q, double z, double r) {
        const Matrix f = transition(dt);
        Vector moved{};
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j) {
                moved[i] += f[i][j] * state[j];
            }
        }
        Matrix fp{};
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j) {
                for (std::size_t k = 0; k < N; ++k) {
                    fp[i][j] += f[i][k] * covariance[k][j];
                }
            }
        }
        Matrix prior = processNoise(dt, q);
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j) {
                for (std::size_t k = 0; k < N; ++k) {
                    prior[i][j] += fp[i][k] * f[j][k];
                }
            }
        }
        // Measurement of position only; Joseph form, so that a tiny r keeps the covariance sound.
        const double s = prior[0][0] + r * r;
        Vector gain{};
        for (std::size_t i = 0; i < N; ++i) {
            gain[i] = prior[i][0] / s;
        }
        const double innovation = z - moved[0];
        for (std::size_t i = 0; i < N; ++i) {
            state[i] = moved[i] + gain[i] * innovation;
        }
        // (I - K H) P (I - K H)^T + K r^2 K^T, with H = [1 0 ...].
        Matrix ikh{};
        for (std::size_t i = 0; i < N; ++i) {
            ikh[i][i] = 1.0;
            ikh[i][0] -= gain[i];
        }
        Matrix tmp{};
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j) {
                for (std::size_t k = 0; k < N; ++k) {
                    tmp[i][j] += ikh[i][k] * prior[k][j];
                }
            }
        }
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j) {
                double sum = gain[i] * gain[j] * r * r;
                for (std::size_t k = 0; k < N; ++k) {
                    sum += tmp[i][k] * ikh[j][k];
                }
                covariance[i][j] = sum;
            }
        }
    }

    // The state's Taylor polynomial `ahead` seconds on.
    double extrapolate(double ahead) const {
        double sum = 0.0, term = 1.0;
        for (std::size_t j = 0; j < N; ++j) {
            sum += state[j] * term;
            term *= ahead / static_cast<double>(j + 1);
        }
        return sum;
    }

    const Vector& estimate() const { return state; }

private:
    using Matrix = std::array<std::array<double, N>, N>;

    static Matrix transition(double dt) {
        Matrix f{};
        for (std::size_t i = 0; i < N; ++i) {
            double term = 1.0;
            for (std::size_t j = i; j < N; ++j) {
                f[i][j] = term;
                term *= dt / static_cast<double>(j - i + 1);
            }
        }
        return f;
    }

    // Integrated white noise: Q[i][j] = q dt^m / (m (N-1-i)! (N-1-j)!), m = 2N-1-i-j.
    static Matrix processNoise(double dt, double q) {
        Matrix noise{};
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j) {
                const std::size_t m = 2 * N - 1 - i - j;
                double value = q / static_cast<double>(m);
                for (std::size_t k = 0; k < m; ++k) {
                    value *= dt;
                }
                value /= factorial(N - 1 - i) * factorial(N - 1 - j);
                noise[i][j] = value;
            }
        }
        return noise;
    }

    static double factorial(std::size_t n) { return n <= 1 ? 1.0 : static_cast<double>(n) * factorial(n - 1); }

    Vector state{};
    Matrix covariance{};
};

}  // namespace peers
