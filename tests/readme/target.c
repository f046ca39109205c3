/* SPDX-License-Identifier: Apache-2.0 */
int answer(void);

int answer(void)
{
    return 42; /* the README's example is asked for the line of answer */
}

int main(void)
{
    return answer() == 42 ? 0 : 1;
}
