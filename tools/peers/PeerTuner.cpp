#include "PeerTuner.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace peers {

PeerTuner::PeerTuner(std::vector<SmoothStroke> strokes, std::vector<int> horizonsMs, std::size_t maxSamples,
                     SensorConditions conditions)
    : strokes(std::move(strokes)),
      horizonsMs(std::move(horizonsMs)),
      maxSamples(std::max<std::size_t>(1, maxSamples)),
      conditions(conditions) {
    if (this->horizonsMs.empty()) {
        throw std::invalid_argument("tuning needs at least one horizon");
    }
}

PeerTuner::Prepared PeerTuner::prepare(double rateHz) const {
    double expected = 0.0;
    for (const SmoothStroke& stroke : strokes) {
        expected += (stroke.end() - stroke.start()) * rateHz + 1.0;
    }
    const std::size_t stride =
        std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(expected / static_cast<double>(maxSamples))));
    Prepared data;
    const std::size_t h = horizonsMs.size();
    for (std::size_t s = 0; s < strokes.size(); s += stride) {
        const SmoothStroke& stroke = strokes[s];
        SensorConditions own = conditions;
        own.seed = conditions.seed * 1000003u + s;  // each stroke its own noise, the same at every run
        std::vector<StrokeSample> samples = stroke.resample(rateHz, own);
        std::vector<double> truth(samples.size() * h * 2, std::numeric_limits<double>::quiet_NaN());
        for (std::size_t i = 0; i < samples.size(); ++i) {
            for (std::size_t k = 0; k < h; ++k) {
                const double t = samples[i].t + horizonsMs[k] / 1000.0;
                if (t <= stroke.end() + 1e-9) {
                    const StrokeSample p = stroke.at(t);
                    truth[(i * h + k) * 2] = p.x;
                    truth[(i * h + k) * 2 + 1] = p.y;
                }
            }
        }
        data.samples += samples.size();
        data.strokes.push_back(std::move(samples));
        data.truth.push_back(std::move(truth));
    }
    return data;
}

double PeerTuner::evaluate(const Prepared& data, const PredictorKind& kind, const std::vector<double>& values,
                           std::size_t* points) const {
    const std::size_t h = horizonsMs.size();
    std::vector<double> sum(h, 0.0);
    std::vector<std::size_t> count(h, 0);
    const std::unique_ptr<StrokePredictor> predictor = kind.make(values);
    for (std::size_t s = 0; s < data.strokes.size(); ++s) {
        const std::vector<StrokeSample>& samples = data.strokes[s];
        const std::vector<double>& truth = data.truth[s];
        predictor->reset();
        for (std::size_t i = 0; i < samples.size(); ++i) {
            predictor->add(samples[i].t, samples[i].x, samples[i].y);
            for (std::size_t k = 0; k < h; ++k) {
                const double tx = truth[(i * h + k) * 2];
                if (std::isnan(tx)) {
                    continue;
                }
                double x = samples[i].x, y = samples[i].y;  // no guess: the pen shown where it is
                predictor->predict(horizonsMs[k] / 1000.0, x, y);
                sum[k] += std::hypot(x - tx, y - truth[(i * h + k) * 2 + 1]);
                ++count[k];
            }
        }
    }
    double total = 0.0;
    std::size_t used = 0, all = 0;
    for (std::size_t k = 0; k < h; ++k) {
        all += count[k];
        if (count[k] > 0) {
            total += sum[k] / static_cast<double>(count[k]);
            ++used;
        }
    }
    if (points != nullptr) {
        *points = all;
    }
    const double error = used > 0 ? total / static_cast<double>(used) : std::numeric_limits<double>::quiet_NaN();
    // A diverging guess is a bad one, not a number that stops the search.
    return std::isfinite(error) ? error : std::numeric_limits<double>::max();
}

std::vector<double> PeerTuner::search(const Prepared& data, const PredictorKind& kind, std::vector<double> values,
                                      double& error) const {
    // Coordinate descent with shrinking moves: factors for log-scaled values, steps for the others.
    const double factors[] = {10.0, 3.1623, 1.7783, 1.3335, 1.1548};
    const double fractions[] = {0.25, 0.1, 0.04, 0.015, 0.006};
    const double windowSteps[] = {8, 4, 2, 1, 1};
    error = evaluate(data, kind, values, nullptr);
    for (std::size_t pass = 0; pass < 5; ++pass) {
        for (std::size_t p = 0; p < kind.parameters.size(); ++p) {
            const Parameter& parameter = kind.parameters[p];
            for (bool moved = true; moved;) {
                moved = false;
                for (const int direction : {+1, -1}) {
                    std::vector<double> candidate = values;
                    double& v = candidate[p];
                    if (parameter.logScale) {
                        v = direction > 0 ? v * factors[pass] : v / factors[pass];
                    } else if (parameter.integer) {
                        v += direction * windowSteps[pass];
                    } else {
                        v += direction * fractions[pass] * (parameter.max - parameter.min);
                    }
                    v = std::clamp(v, parameter.min, parameter.max);
                    if (v == values[p]) {
                        continue;
                    }
                    const double e = evaluate(data, kind, candidate, nullptr);
                    if (e < error) {
                        error = e;
                        values = candidate;
                        moved = true;
                        break;
                    }
                }
            }
        }
    }
    return values;
}

double PeerTuner::objective(double rateHz, const PredictorKind& kind, const std::vector<double>& values,
                            std::size_t* points) const {
    return evaluate(prepare(rateHz), kind, values, points);
}

TunedRate PeerTuner::tune(double rateHz, const TunedRate* neighbour, std::ostream* progress) const {
    const Prepared data = prepare(rateHz);
    TunedRate rate;
    rate.rateHz = rateHz;
    rate.strokes = data.strokes.size();
    for (const PredictorKind& kind : predictorKinds()) {
        if (!kind.tuned) {
            continue;
        }
        TunedPeer peer;
        const std::vector<double> initial = kind.initialValues();
        peer.initialErrorMm = evaluate(data, kind, initial, &rate.points);
        std::vector<double> start = initial;
        if (neighbour != nullptr) {
            const auto found = neighbour->peers.find(kind.key);
            if (found != neighbour->peers.end() && found->second.values.size() == initial.size() &&
                evaluate(data, kind, found->second.values, nullptr) < peer.initialErrorMm) {
                start = found->second.values;
            }
        }
        // Never worse than untuned: the search only moves to a lower error than its start's.
        peer.values = search(data, kind, start, peer.errorMm);
        if (progress != nullptr) {
            *progress << "  " << rateHz << " Hz  " << kind.key << ": " << peer.errorMm << " mm (untuned "
                      << peer.initialErrorMm << ")";
            for (std::size_t p = 0; p < kind.parameters.size(); ++p) {
                *progress << "  " << kind.parameters[p].name << " " << peer.values[p];
            }
            *progress << std::endl;
        }
        rate.peers[kind.key] = peer;
    }
    return rate;
}

}  // namespace peers
