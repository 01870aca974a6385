"""The heat equation on the unit square, solved by Crank-Nicolson steps and conjugate gradients.

u_t = u_xx + u_yy + f with u = 0 on the border. The source f is chosen so that the exact solution is
known: u(x, y, t) = exp(-t) w(x) w(y) with w(s) = s (1 - s) exp(s). The program solves on finer and
finer grids and checks that the error falls with the square of the grid's spacing.

Two threads work: the main one steps in time, "analysis" compares each finished step with the exact
solution and looks at how its energy spreads over wave numbers. Both tell vantrace what they do:

    ./dev run                      (a table of where the time went, and a trace)
    ./dev python examples/heat.py  (not recorded)
"""

import queue
import sys
import threading

import numpy as np

import vantrace

END = 0.25
TOLERANCE = 1e-9
GRIDS = (40, 80, 160)


def profile(s):
    return s * (1 - s) * np.exp(s)


def profile_second_derivative(s):
    return -s * (3 + s) * np.exp(s)


class Problem:
    """The equation on a grid of n by n inner points, with the operators of one time step."""

    @vantrace.event("assemble")
    def __init__(self, n):
        self.n = n
        self.spacing = 1 / (n + 1)
        self.steps = max(4, n // 6)
        self.step = END / self.steps
        s = np.linspace(0, 1, n + 2)[1:-1]
        self.shape = np.outer(profile(s), profile(s))
        laplacian = np.outer(profile_second_derivative(s), profile(s))
        self.shape_laplacian = laplacian + laplacian.T

    def exact(self, time):
        return np.exp(-time) * self.shape

    def source(self, time):
        return -np.exp(-time) * (self.shape + self.shape_laplacian)

    def laplace(self, u):
        result = -4 * u
        result[1:] += u[:-1]
        result[:-1] += u[1:]
        result[:, 1:] += u[:, :-1]
        result[:, :-1] += u[:, 1:]
        return result / self.spacing**2

    def implicit(self, u):
        """The left side of a step: symmetric and positive definite."""
        return u - self.step / 2 * self.laplace(u)

    def right_side(self, u, time):
        sources = self.source(time) + self.source(time + self.step)
        return u + self.step / 2 * (self.laplace(u) + sources)


def conjugate_gradients(problem, right_side, guess):
    """Solves `implicit(u) = right_side` from a guess; gives u and the number of iterations."""
    u = guess.copy()
    residual = right_side - problem.implicit(u)
    direction = residual.copy()
    square = np.vdot(residual, residual)
    goal = TOLERANCE**2 * np.vdot(right_side, right_side)
    iterations = 0
    while square > goal:
        with vantrace.event("iteration"):
            image = problem.implicit(direction)
            length = square / np.vdot(direction, image)
            u += length * direction
            residual -= length * image
            before, square = square, np.vdot(residual, residual)
            direction = residual + square / before * direction
            iterations += 1
    return u, iterations


class Analysis(threading.Thread):
    """Looks at each finished step while the next one is computed."""

    def __init__(self, problem):
        super().__init__(name="analysis")
        self.problem = problem
        self.steps = queue.SimpleQueue()
        self.errors = []
        self.rough_share = []

    def run(self):
        while (step := self.steps.get()) is not None:
            with vantrace.event("analyse", n=self.problem.n):
                self.look_at(*step)

    @vantrace.event("error norm")
    def look_at(self, time, u):
        error = u - self.problem.exact(time)
        self.errors.append(self.problem.spacing * np.linalg.norm(error))
        self.rough_share.append(self.spectrum(u))

    @vantrace.event("spectrum")
    def spectrum(self, u):
        """The share of the energy that is above the lowest eighth of the sine waves."""
        odd = np.pad(u, ((1, 1), (1, 1)))
        odd = np.concatenate([odd, -odd[-2:0:-1]])
        odd = np.concatenate([odd, -odd[:, -2:0:-1]], axis=1)
        energy = np.abs(np.fft.rfft2(odd)) ** 2
        waves = self.problem.n // 8
        return 1 - energy[1 : waves + 1, 1 : waves + 1].sum() * 2 / energy[:, 1:-1].sum()


def march(problem, analysis):
    """Steps to the end; gives the number of iterations in all."""
    u = problem.exact(0)
    total = 0
    for number in range(problem.steps):
        time = number * problem.step
        with vantrace.event("step", n=problem.n, tol=TOLERANCE):
            with vantrace.event("right side"):
                right_side = problem.right_side(u, time)
            with vantrace.event("conjugate gradients"):
                u, iterations = conjugate_gradients(problem, right_side, u)
            vantrace.instant("converged", step=number, iterations=iterations)
        total += iterations
        analysis.steps.put((time + problem.step, u))
    return total


def solve(n):
    with vantrace.event("solve", n=n, tol=TOLERANCE):
        problem = Problem(n)
        analysis = Analysis(problem)
        analysis.start()
        try:
            iterations = march(problem, analysis)
        finally:
            analysis.steps.put(None)
            analysis.join()
    return problem, iterations, analysis


@vantrace.event("output")
def report(problem, iterations, analysis, previous):
    error = max(analysis.errors)
    order = "" if previous is None else f"{np.log2(previous / error):10.2f}"
    print(
        f"{problem.n:6}{problem.steps:8}{iterations:12}{error:14.3e}"
        f"{analysis.rough_share[-1]:12.1e}{order}"
    )
    return error


def main():
    print(f"{'n':>6}{'steps':>8}{'iterations':>12}{'error':>14}{'rough':>12}{'order':>10}")
    errors = []
    for n in GRIDS:
        errors.append(report(*solve(n), errors[-1] if errors else None))
    order = np.log2(errors[-2] / errors[-1])
    if not 1.8 < order < 2.2:
        sys.exit(f"the error falls with order {order:.2f} instead of 2")
    print(f"the error falls with order {order:.2f}, as it should")


if __name__ == "__main__":
    main()
