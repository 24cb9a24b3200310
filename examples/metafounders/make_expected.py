# Made expected_solutions.txt and expected_inbreeding.txt: relationships among all levels by the tabular method, the
# inverse and the mixed model equations as dense matrices, both by Gaussian elimination. Plain Python, nothing else.


def rows_of(name):
    return [line.split() for line in open(name)]


def solve(a, b):
    """x with a x = b; a and b are lists of rows."""
    n, m = len(a), [list(u) + list(v) for u, v in zip(a, b)]
    for k in range(n):
        p = max(range(k, n), key=lambda i: abs(m[i][k]))
        m[k], m[p] = m[p], m[k]
        for i in range(n):
            if i != k and m[i][k] != 0.0:
                f = m[i][k] / m[k][k]
                m[i] = [x - f * y for x, y in zip(m[i], m[k])]
    return [[x / m[k][k] for x in m[k][n:]] for k in range(n)]


pedigree = {int(i): (int(s), int(d)) for i, s, d in rows_of("pedigree.txt")}
gamma = {}
for i, j, value in rows_of("gamma.txt"):
    gamma[int(i), int(j)] = gamma[int(j), int(i)] = float(value)
nanimal, nmeta = len(pedigree), max(i for i, _ in gamma)
order = list(range(nanimal + 1, nanimal + nmeta + 1)) + list(range(1, nanimal + 1))  # metafounders first

a = {(nanimal + i, nanimal + j): value for (i, j), value in gamma.items()}
for k, i in enumerate(order[nmeta:], nmeta):
    s, d = pedigree[i]
    for j in order[:k]:
        a[i, j] = a[j, i] = 0.5 * (a[s, j] + a[d, j])
    a[i, i] = 1.0 + 0.5 * a[s, d]

levels = range(1, nanimal + nmeta + 1)
unit = [[float(i == j) for j in levels] for i in levels]
ainv = solve([[a[i, j] for j in levels] for i in levels], unit)

data = [(float(y), int(herd), int(animal)) for y, herd, animal in rows_of("data.txt")]
nherd = max(herd for _, herd, _ in data)
vg, ve = float(rows_of("g.txt")[0][0]), float(rows_of("residual.txt")[0][2])
n = nherd + nanimal + nmeta
lhs, rhs = [[0.0] * n for _ in range(n)], [[0.0] for _ in range(n)]
for y, herd, animal in data:
    equations = herd - 1, nherd + animal - 1
    for i in equations:
        rhs[i][0] += y / ve
        for j in equations:
            lhs[i][j] += 1.0 / ve
for i in levels:
    for j in levels:
        lhs[nherd + i - 1][nherd + j - 1] += ainv[i - 1][j - 1] / vg
solution = [row[0] for row in solve(lhs, rhs)]

with open("expected_solutions.txt", "w") as out:
    for i, value in enumerate(solution):
        e, level = (1, i + 1) if i < nherd else (2, i - nherd + 1)
        out.write(f"1 {e} {level} 0 {value:.12g}\n")
with open("expected_inbreeding.txt", "w") as out:
    for i in levels:
        out.write(f"{i} {a[i, i] - 1.0:.12g}\n")
